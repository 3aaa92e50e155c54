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
// Opening reads no row: the rows are read when first asked for (read()),
// which a daemon with a large store does after its first reply. Neither step
// gives up on a damaged file: a file that SQLite cannot read as a database,
// that carries an unknown schema version (both seen at open), or whose rows
// cannot be read (seen by read()) is renamed to "<path>.corrupt" (replacing
// an older one), logged, and replaced by an empty database. Only a location
// where no database can be created at all is an error, and only at open.
//
// Thread-safety: none; the owner serialises all calls.
#pragma once

#include "base/Date.h"
#include "base/Result.h"
#include "base/Uuid.h"
#include "base/Value.h"

#include <atomic>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct sqlite3;

namespace tv::platform {

// A dictionary of a stored row: either a fresh reading, or the bytes the
// store holds, decoded on first read (the store's rows are all read at once,
// their records made only when asked). Copies share the decoding; safe to
// read from any thread. The values read together share one block (their
// bytes and decoding states), so that reading 10,000 rows makes no
// allocation per dictionary.
class StoredValue {
public:
    StoredValue() = default;
    StoredValue(Value value); // NOLINT: a fresh reading stands for itself

    // The value; null when the stored bytes cannot be decoded.
    const Value& value() const;
    // False when the stored bytes cannot be decoded.
    bool readable() const;
    // The bytes to store: the stored ones when they were read from the store.
    Bytes encoding() const;
    bool operator==(const StoredValue& other) const { return value() == other.value(); }

private:
    friend class RegistryDatabase; // reads rows into shared blocks

    struct State {
        // No mutex of its own: it would be 40 of the state's 96 bytes, and
        // a start zeroes 20,000 states. Decodings take one of a few shared
        // locks instead.
        std::atomic<bool> decoded{false};
        bool readable = true;
        std::span<const std::uint8_t> bytes; // as stored, within the block; empty for a fresh reading
        Value value;
    };
    // The bytes and states of the values read together.
    struct Block {
        Bytes bytes;
        std::unique_ptr<State[]> states;
    };
    const State* decodedState() const;
    std::shared_ptr<State> state_; // null: a null value
};

struct StoredPlugIn {
    Uuid uuid;
    std::string path;
    std::string applicationPath; // empty: no containing application
    std::string identifier;
    std::string version;
    Date registered;
    bool registeredByPath = false;
    // "KoExtensionPointIdentifier" of the plug-in dictionary in `info`
    // (empty when it is not a string); none for a row stored before the
    // store kept it, which only `info` can tell.
    std::optional<std::string> extensionPoint;
    StoredValue info;
    StoredValue entitlements;

    // The extension point, from `info` when the row does not carry it.
    std::string extensionPointIdentifier() const;
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
    // 2 added plugins.extension_point; a store of version 1 is upgraded at
    // open.
    static constexpr int kSchemaVersion = 2;

    // Opens or creates the database at `path`, making missing parent
    // directories (mode 0755). Reads no row.
    static Result<std::unique_ptr<RegistryDatabase>> open(const std::string& path);
    ~RegistryDatabase();
    RegistryDatabase(const RegistryDatabase&) = delete;
    RegistryDatabase& operator=(const RegistryDatabase&) = delete;

    // Whether the store held any plug-in when it was opened.
    bool heldPlugIns() const { return heldPlugIns_; }
    // Everything stored, plug-ins ordered by path; their dictionaries are
    // kept encoded until first read (StoredValue). A store whose rows cannot
    // be read is moved aside and replaced by an empty one (logged): nothing
    // is stored then.
    StoredRegistry read();

    // All or nothing.
    [[nodiscard]] MaybeError apply(const RegistryChanges& changes);

    const std::string& path() const { return path_; }

private:
    RegistryDatabase(sqlite3* db, std::string path) : db_(db), path_(std::move(path)) {}
    // What read() reads.
    Result<StoredRegistry> load();

    sqlite3* db_; // null when a store moved aside could not be replaced
    std::string path_;
    bool heldPlugIns_ = false;
};

} // namespace tv::platform
