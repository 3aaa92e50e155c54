// TvDatabase: the daemon's registry of installed plug-ins. The server is a
// TvDatabase and its own delegate.
//
// This is the registry's skeleton: its construction with the annotation
// file location, its delegate and its cache limit. The plug-in cache over the
// application registry, the annotation store and the queries grow here.
//
// Thread-safety: the accessors may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tv {

class TvDatabaseDelegate;

class TvDatabase {
public:
    virtual ~TvDatabase() = default;

    // A database whose annotation file lives at `location` (null: the default
    // location). Null when the database cannot be set up.
    static std::shared_ptr<TvDatabase> initWithDatabase(const char* location);

    std::shared_ptr<TvDatabaseDelegate> delegate() const { return delegate_.load().lock(); }
    void setDelegate(std::weak_ptr<TvDatabaseDelegate> delegate) { delegate_.store(std::move(delegate)); }

    // Cache size above which the next record creation empties the cache; 0
    // until the server sets it.
    std::uint32_t cacheLimit() const { return cacheLimit_.load(); }
    void setCacheLimit(std::uint32_t limit) { cacheLimit_.store(limit); }

    const std::optional<std::string>& databaseLocation() const { return location_; }

protected:
    TvDatabase() = default;
    // The failable part of construction, shared with subclasses.
    bool setupWithDatabase(const char* location);

private:
    std::atomic<std::weak_ptr<TvDatabaseDelegate>> delegate_;
    std::atomic<std::uint32_t> cacheLimit_{0};
    std::optional<std::string> location_;
};

// Told about plug-ins that the application registry is uninstalling.
class TvDatabaseDelegate {
public:
    virtual ~TvDatabaseDelegate() = default;
};

} // namespace tv
