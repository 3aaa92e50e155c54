// TvDatabase: the daemon's registry of installed plug-ins. The server is a
// TvDatabase and its own delegate.
//
// It stands on the platform's application registry (its `workspace`), which
// is the source of truth for installed plug-ins. So far it offers the
// registration and deregistration of plug-in bundles by path, its delegate
// and its cache limit; the plug-in cache, the annotation store and the
// queries grow here.
//
// Thread-safety: the accessors may be called from any thread.
#pragma once

#include "base/TvError.h"
#include "base/Value.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tv {

namespace platform {
class ApplicationRegistry;
}

class TvDatabaseDelegate;

class TvDatabase {
public:
    virtual ~TvDatabase() = default;

    // A database over `workspace` whose annotation file lives at `location`
    // (null: the default location). Null when the database cannot be set up.
    static std::shared_ptr<TvDatabase> initWithDatabase(const char* location,
                                                        std::shared_ptr<platform::ApplicationRegistry> workspace);

    // Asks the registry to register (or unregister) the plug-in bundle at
    // `url` (a file URL). None on success; on refusal an error with code 2.
    // The plug-in cache is not touched: an uninstall reaches it through the
    // registry's notification.
    MaybeError addPlugIn(const Value& url);
    MaybeError removePlugIn(const Value& url);

    const std::shared_ptr<platform::ApplicationRegistry>& workspace() const { return workspace_; }

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
    bool setupWithDatabase(const char* location, std::shared_ptr<platform::ApplicationRegistry> workspace);

private:
    std::atomic<std::weak_ptr<TvDatabaseDelegate>> delegate_;
    std::atomic<std::uint32_t> cacheLimit_{0};
    std::optional<std::string> location_;
    std::shared_ptr<platform::ApplicationRegistry> workspace_;
};

// Told about plug-ins that the application registry is uninstalling.
class TvDatabaseDelegate {
public:
    virtual ~TvDatabaseDelegate() = default;
};

} // namespace tv
