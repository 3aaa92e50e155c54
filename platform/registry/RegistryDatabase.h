// RegistryDatabase: the application registry's persistent store, one SQLite
// database in WAL mode.
//
// It stores what must survive a restart: each installed plug-in's UUID,
// path, identifier, version, registration date and whether it was
// registered by path, with the information dictionary and entitlements read
// at its last refresh (so that caches can be rebuilt without touching every
// bundle), and each application's information dictionary. The schema is
// versioned by SQLite's user_version; the layout is in
// docs/application-registry.md.
//
// Opening never gives up on a damaged file: a file that SQLite cannot read
// as a database, that fails its integrity check or that carries an unknown
// schema version is renamed to "<path>.corrupt" (replacing an older one),
// logged, and replaced by an empty database. Only a location where no
// database can be created at all is an error.
//
// Thread-safety: none; the owner serialises all calls.
#pragma once

#include "base/Date.h"
#include "base/Result.h"
#include "base/Uuid.h"
#include "base/Value.h"

#include <memory>
#include <string>
#include <vector>

struct sqlite3;

namespace tv::platform {

struct StoredPlugIn {
    Uuid uuid;
    std::string path;
    std::string applicationPath; // empty: no containing application
    std::string identifier;
    std::string version;
    Date registered;
    bool registeredByPath = false;
    Value info;
    Value entitlements;
};

struct StoredApplication {
    std::string path;
    Value info;
};

struct StoredRegistry {
    std::vector<StoredPlugIn> plugIns;
    std::vector<StoredApplication> applications;
};

// One batch of changes, applied in one transaction: removals first, then
// insertions or replacements (keyed by UUID, respectively path).
struct RegistryChanges {
    std::vector<Uuid> removedPlugIns;
    std::vector<StoredPlugIn> storedPlugIns;
    std::vector<std::string> removedApplications;
    std::vector<StoredApplication> storedApplications;

    bool empty() const
    {
        return removedPlugIns.empty() && storedPlugIns.empty() && removedApplications.empty() &&
               storedApplications.empty();
    }
};

class RegistryDatabase {
public:
    static constexpr int kSchemaVersion = 1;

    // Opens or creates the database at `path`, making missing parent
    // directories (mode 0755).
    static Result<std::unique_ptr<RegistryDatabase>> open(const std::string& path);
    ~RegistryDatabase();
    RegistryDatabase(const RegistryDatabase&) = delete;
    RegistryDatabase& operator=(const RegistryDatabase&) = delete;

    // Everything stored, plug-ins ordered by path. A row whose stored
    // dictionaries cannot be decoded is left out (and logged): the next
    // scan records that bundle afresh.
    Result<StoredRegistry> load();
    // All or nothing.
    [[nodiscard]] MaybeError apply(const RegistryChanges& changes);

    const std::string& path() const { return path_; }

private:
    RegistryDatabase(sqlite3* db, std::string path) : db_(db), path_(std::move(path)) {}

    sqlite3* db_;
    std::string path_;
};

} // namespace tv::platform
