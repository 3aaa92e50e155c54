#include "platform/registry/RegistryDatabase.h"
#include "platform/registry/ApplicationRegistry.h"

#include "base/ValueCodec.h"
#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <sqlite3.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

constexpr const char* kLogCategory = "registry";
constexpr int kBusyTimeoutMs = 5000;
// Pages are read through a shared mapping of the file rather than copied
// into SQLite's own page cache: reading the rows reads every page of both
// tables, and a heap page cache of them costs an allocation and a copy per
// page.
constexpr const char* kMmapPragma = "PRAGMA mmap_size = 268435456;";

constexpr const char* kCreateSchema =
    "CREATE TABLE applications("
    " path TEXT PRIMARY KEY NOT NULL,"
    " info BLOB NOT NULL);"
    "CREATE TABLE plugins("
    " uuid TEXT PRIMARY KEY NOT NULL,"
    " path TEXT NOT NULL UNIQUE,"
    " application TEXT,"
    " identifier TEXT NOT NULL,"
    " version TEXT NOT NULL,"
    " registered INTEGER NOT NULL,"
    " by_path INTEGER NOT NULL,"
    " info BLOB NOT NULL,"
    " entitlements BLOB NOT NULL,"
    " extension_point TEXT);"
    "PRAGMA user_version = 2;";

// From version 1: the extension point of a row beside its dictionaries, so
// that the index by extension point is built without decoding them. Adding
// a column rewrites no row; the rows of version 1 read it as NULL (not
// known) until a scan stores them again.
constexpr const char* kUpgradeFrom1 =
    "ALTER TABLE plugins ADD COLUMN extension_point TEXT;"
    "PRAGMA user_version = 2;";

TvError sqliteError(sqlite3* db, int rc, std::string_view what)
{
    std::string text = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    return registryError(kRegistryErrorStore, std::string(what) + ": " + text + " (" + std::to_string(rc) + ")");
}

// Owns a prepared statement.
class Statement {
public:
    Statement(sqlite3* db, const char* sql) { rc_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return rc_ == SQLITE_OK; }
    int rc() const { return rc_; }
    sqlite3_stmt* get() const { return stmt_; }

    void bindText(int index, const std::string& text)
    {
        sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
    void bindBlob(int index, const Bytes& bytes)
    {
        sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
    }
    // Views of the current row's columns, valid until the next step.
    std::string_view text(int column) const
    {
        const unsigned char* p = sqlite3_column_text(stmt_, column);
        return p ? std::string_view(reinterpret_cast<const char*>(p),
                                    static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
                 : std::string_view();
    }
    std::span<const std::uint8_t> bytes(int column) const
    {
        const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt_, column));
        return p ? std::span(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
                 : std::span<const std::uint8_t>();
    }
    Result<Value> value(int column) const { return decodeValue(bytes(column)); }

private:
    sqlite3_stmt* stmt_ = nullptr;
    int rc_ = SQLITE_OK;
};

// Changes of more rows than this are folded back into the database file at
// once, so that the next start does not replay a large write-ahead log.
constexpr std::size_t kCheckpointAfterRows = 256;

// Every error code that says the file itself is damaged.
bool isDamage(int code)
{
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_FORMAT;
}

int userVersion(sqlite3* db, int* rc)
{
    Statement stmt(db, "PRAGMA user_version");
    *rc = stmt.rc();
    if (!stmt.ok())
        return -1;
    *rc = sqlite3_step(stmt.get());
    if (*rc != SQLITE_ROW)
        return -1;
    *rc = SQLITE_OK;
    return sqlite3_column_int(stmt.get(), 0);
}

// Opens the file and brings it to the current schema. *fileAtFault tells
// whether the file itself is at fault (and may be moved aside) rather than
// its location.
Result<sqlite3*> openAndPrepare(const std::string& path, bool* fileAtFault, bool* heldPlugIns)
{
    *fileAtFault = false;
    *heldPlugIns = false;
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
    if (rc != SQLITE_OK) {
        TvError error = sqliteError(db, rc, "cannot open " + path);
        sqlite3_close(db);
        return error;
    }
    auto fail = [&](int code, std::string_view what) -> Result<sqlite3*> {
        TvError error = sqliteError(db, code, what);
        *fileAtFault = isDamage(code);
        sqlite3_close(db);
        return error;
    };
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    sqlite3_extended_result_codes(db, 1);

    rc = sqlite3_exec(db, "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;", nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK)
        rc = sqlite3_exec(db, kMmapPragma, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
        return fail(rc, "cannot switch " + path + " to WAL");
    const int version = userVersion(db, &rc);
    if (rc != SQLITE_OK)
        return fail(rc, "cannot read the schema version of " + path);
    if (version == 0 || version == 1) {
        rc = sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
        if (rc == SQLITE_OK) {
            // Another process may have made or upgraded the schema meanwhile.
            const int now = userVersion(db, &rc);
            if (rc == SQLITE_OK && now == 0)
                rc = sqlite3_exec(db, kCreateSchema, nullptr, nullptr, nullptr);
            else if (rc == SQLITE_OK && now == 1)
                rc = sqlite3_exec(db, kUpgradeFrom1, nullptr, nullptr, nullptr);
            rc = rc == SQLITE_OK ? sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) : rc;
            if (rc != SQLITE_OK)
                sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        }
        if (rc != SQLITE_OK)
            return fail(rc, (version == 0 ? "cannot create the schema in " : "cannot upgrade the schema of ") + path);
        if (version == 1)
            platformLog(LogLevel::Info, kLogCategory, "registry database %{public}s upgraded to schema version %d",
                        path, RegistryDatabase::kSchemaVersion);
    }
    if (version != 0 && version != 1 && version != RegistryDatabase::kSchemaVersion) {
        *fileAtFault = true;
        sqlite3_close(db);
        return registryError(kRegistryErrorStore, path + " has unknown schema version " + std::to_string(version));
    }
    if (version != 0) {
        // One page of the table: whether the first scan can wait.
        {
            Statement any(db, "SELECT EXISTS(SELECT 1 FROM plugins)");
            rc = any.ok() ? sqlite3_step(any.get()) : any.rc();
            if (rc == SQLITE_ROW)
                *heldPlugIns = sqlite3_column_int(any.get(), 0) != 0;
        }
        if (rc != SQLITE_ROW)
            return fail(rc, "cannot read plug-ins of " + path);
    }
    return db;
}

void logMovedAside(const std::string& path, const TvError& error)
{
    platformLog(LogLevel::Error, kLogCategory,
                "registry database %{public}s is unusable (%{public}s); moved aside to %{public}s.corrupt and rebuilt",
                path, error.localizedDescription(), path);
}

void moveAside(const std::string& path)
{
    const std::string aside = path + ".corrupt";
    if (::rename(path.c_str(), aside.c_str()) != 0 && errno != ENOENT)
        platformLog(LogLevel::Error, kLogCategory, "cannot move %{public}s aside: %{public}s", path,
                    posixError(errno, "rename").localizedDescription());
    // The journal files belong to the old file; left behind they would be
    // replayed into the new one.
    for (const char* suffix : {"-wal", "-shm", "-journal"})
        ::unlink((path + suffix).c_str());
}

} // namespace

Result<std::unique_ptr<RegistryDatabase>> RegistryDatabase::open(const std::string& path)
{
    std::error_code ec;
    const fs::path parent = fs::path(path).parent_path();
    if (!parent.empty())
        fs::create_directories(parent, ec);
    if (ec)
        return posixError(ec.value(), "cannot create " + parent.string());

    // No row is read here, and no integrity check of the whole file is
    // made: either would read every page before the daemon can answer.
    // Damage in the rows shows as an error of read() (or of a later change,
    // which is then refused).
    bool fileAtFault = false;
    bool heldPlugIns = false;
    Result<sqlite3*> opened = openAndPrepare(path, &fileAtFault, &heldPlugIns);
    if (!opened && fileAtFault) {
        logMovedAside(path, opened.error());
        moveAside(path);
        opened = openAndPrepare(path, &fileAtFault, &heldPlugIns);
    }
    if (!opened)
        return opened.error();
    std::unique_ptr<RegistryDatabase> db(new RegistryDatabase(*opened, path));
    db->heldPlugIns_ = heldPlugIns;
    return db;
}

StoredRegistry RegistryDatabase::read()
{
    if (!db_)
        return {};
    Result<StoredRegistry> loaded = load();
    if (loaded)
        return std::move(*loaded);
    // By now the daemon serves and cannot stop to report the store. A store
    // whose rows cannot be read, damaged or not, is one whose changes could
    // not be kept in step with memory: it goes aside like a damaged file.
    logMovedAside(path_, loaded.error());
    sqlite3_close(db_);
    db_ = nullptr;
    moveAside(path_);
    bool fileAtFault = false, heldPlugIns = false;
    Result<sqlite3*> opened = openAndPrepare(path_, &fileAtFault, &heldPlugIns);
    if (opened)
        db_ = *opened;
    else
        platformLog(LogLevel::Error, kLogCategory, "no registry database: %{public}s; changes are not stored",
                    opened.error().localizedDescription());
    return {};
}

RegistryDatabase::~RegistryDatabase()
{
    sqlite3_close(db_);
}

Result<StoredRegistry> RegistryDatabase::load()
{
    StoredRegistry stored;
    {
        Statement stmt(db_, "SELECT path, info FROM applications ORDER BY path");
        if (!stmt.ok())
            return sqliteError(db_, stmt.rc(), "cannot read applications");
        int rc;
        while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
            StoredApplication app{std::string(stmt.text(0)), Value()};
            Result<Value> info = stmt.value(1);
            if (!info) {
                platformLog(LogLevel::Error, kLogCategory, "dropping unreadable application row %{public}s",
                            app.path);
                continue;
            }
            app.info = std::move(*info);
            stored.applications.push_back(std::move(app));
        }
        if (rc != SQLITE_DONE)
            return sqliteError(db_, rc, "cannot read applications");
    }
    {
        Statement count(db_, "SELECT count(*) FROM plugins");
        const int rc = count.ok() ? sqlite3_step(count.get()) : count.rc();
        if (rc != SQLITE_ROW)
            return sqliteError(db_, rc, "cannot read plug-ins");
        stored.plugIns.reserve(static_cast<std::size_t>(sqlite3_column_int64(count.get(), 0)));
    }
    // In the table's own order, sorted here: ordering by path in SQL would
    // seek every row through the path index. The dictionaries' bytes go to
    // one block, sized by the file (a hint: the log may hold more), and
    // become values once every row is read.
    Statement stmt(db_, "SELECT uuid, path, application, identifier, version, registered, by_path, info, "
                        "entitlements, extension_point FROM plugins");
    if (!stmt.ok())
        return sqliteError(db_, stmt.rc(), "cannot read plug-ins");
    auto block = std::make_shared<StoredValue::Block>();
    {
        std::error_code ec;
        const std::uintmax_t fileSize = fs::file_size(path_, ec);
        if (!ec)
            block->bytes.reserve(static_cast<std::size_t>(fileSize));
    }
    struct Extent {
        std::size_t offset, size;
    };
    std::vector<Extent> extents; // info and entitlements of each row read
    extents.reserve(2 * stored.plugIns.capacity());
    auto append = [&](int column) {
        const std::span<const std::uint8_t> bytes = stmt.bytes(column);
        extents.push_back({block->bytes.size(), bytes.size()});
        block->bytes.insert(block->bytes.end(), bytes.begin(), bytes.end());
    };
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        StoredPlugIn p;
        std::optional<Uuid> uuid = Uuid::parse(stmt.text(0));
        p.path = stmt.text(1);
        if (!uuid) {
            platformLog(LogLevel::Error, kLogCategory, "dropping unreadable plug-in row %{public}s", p.path);
            continue;
        }
        p.uuid = *uuid;
        p.applicationPath = stmt.text(2);
        p.identifier = stmt.text(3);
        p.version = stmt.text(4);
        p.registered = Date::fromMicroseconds(sqlite3_column_int64(stmt.get(), 5));
        p.registeredByPath = sqlite3_column_int(stmt.get(), 6) != 0;
        if (sqlite3_column_type(stmt.get(), 9) != SQLITE_NULL)
            p.extensionPoint = std::string(stmt.text(9));
        append(7);
        append(8);
        stored.plugIns.push_back(std::move(p));
    }
    if (rc != SQLITE_DONE)
        return sqliteError(db_, rc, "cannot read plug-ins");
    block->states = std::make_unique<StoredValue::State[]>(extents.size());
    auto valueAt = [&](std::size_t i) {
        StoredValue::State& state = block->states[i];
        state.bytes = std::span<const std::uint8_t>(block->bytes.data() + extents[i].offset, extents[i].size);
        StoredValue value;
        value.state_ = std::shared_ptr<StoredValue::State>(block, &state);
        return value;
    };
    for (std::size_t i = 0; i < stored.plugIns.size(); ++i) {
        stored.plugIns[i].info = valueAt(2 * i);
        stored.plugIns[i].entitlements = valueAt(2 * i + 1);
    }
    std::sort(stored.plugIns.begin(), stored.plugIns.end(),
              [](const StoredPlugIn& a, const StoredPlugIn& b) { return a.path < b.path; });
    return stored;
}

MaybeError RegistryDatabase::apply(const RegistryChanges& changes)
{
    if (changes.empty())
        return std::nullopt;
    if (!db_)
        return registryError(kRegistryErrorStore, "no registry database at " + path_);
    int rc = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
        return sqliteError(db_, rc, "cannot begin a transaction");
    auto run = [&](Statement& stmt) {
        if (!stmt.ok())
            return stmt.rc();
        const int step = sqlite3_step(stmt.get());
        sqlite3_reset(stmt.get());
        sqlite3_clear_bindings(stmt.get());
        return step == SQLITE_DONE ? SQLITE_OK : step;
    };
    {
        Statement removePlugIn(db_, "DELETE FROM plugins WHERE uuid = ?1");
        for (const Uuid& uuid : changes.removedPlugIns) {
            if (rc != SQLITE_OK)
                break;
            removePlugIn.bindText(1, uuid.string());
            rc = run(removePlugIn);
        }
        Statement removeApp(db_, "DELETE FROM applications WHERE path = ?1");
        for (const std::string& path : changes.removedApplications) {
            if (rc != SQLITE_OK)
                break;
            removeApp.bindText(1, path);
            rc = run(removeApp);
        }
        Statement storeApp(db_, "INSERT OR REPLACE INTO applications(path, info) VALUES (?1, ?2)");
        for (const StoredApplication& app : changes.storedApplications) {
            if (rc != SQLITE_OK)
                break;
            storeApp.bindText(1, app.path);
            storeApp.bindBlob(2, StoredValue(app.info).encoding());
            rc = run(storeApp);
        }
        Statement storePlugIn(db_, "INSERT OR REPLACE INTO plugins(uuid, path, application, identifier, version, "
                                   "registered, by_path, info, entitlements, extension_point) "
                                   "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)");
        for (const StoredPlugIn& p : changes.storedPlugIns) {
            if (rc != SQLITE_OK)
                break;
            storePlugIn.bindText(1, p.uuid.string());
            storePlugIn.bindText(2, p.path);
            if (!p.applicationPath.empty())
                storePlugIn.bindText(3, p.applicationPath);
            storePlugIn.bindText(4, p.identifier);
            storePlugIn.bindText(5, p.version);
            sqlite3_bind_int64(storePlugIn.get(), 6, p.registered.microseconds());
            sqlite3_bind_int(storePlugIn.get(), 7, p.registeredByPath ? 1 : 0);
            storePlugIn.bindBlob(8, p.info.encoding());
            storePlugIn.bindBlob(9, p.entitlements.encoding());
            storePlugIn.bindText(10, p.extensionPointIdentifier());
            rc = run(storePlugIn);
        }
    }
    if (rc == SQLITE_OK)
        rc = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        TvError error = sqliteError(db_, rc, "cannot store registry changes in " + path_);
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return error;
    }
    // The daemon ends without closing the database: a large log left behind
    // would be read again by every start. A failed checkpoint only leaves it.
    if (changes.storedPlugIns.size() + changes.removedPlugIns.size() > kCheckpointAfterRows)
        sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    return std::nullopt;
}

std::string StoredPlugIn::extensionPointIdentifier() const
{
    if (extensionPoint)
        return *extensionPoint;
    const std::string* point = info.value()["KoExtension"]["KoExtensionPointIdentifier"].asString();
    return point ? *point : std::string();
}

// MARK: - StoredValue

StoredValue::StoredValue(Value value) : state_(std::make_shared<State>())
{
    state_->value = std::move(value);
    state_->decoded.store(true, std::memory_order_release);
}

// Decodes once, whichever thread reads first; no system call when the
// value is already there (std::call_once makes one on every first call).
// Decodings of different values rarely meet, so a few locks, chosen by the
// state's address, serve them all.
const StoredValue::State* StoredValue::decodedState() const
{
    if (!state_ || state_->decoded.load(std::memory_order_acquire))
        return state_.get();
    static std::mutex decodings[16];
    std::lock_guard lock(decodings[(reinterpret_cast<std::uintptr_t>(state_.get()) / sizeof(State)) % 16]);
    if (!state_->decoded.load(std::memory_order_relaxed)) {
        Result<Value> decoded = decodeValue(state_->bytes);
        if (decoded)
            state_->value = std::move(*decoded);
        else
            state_->readable = false;
        state_->decoded.store(true, std::memory_order_release);
    }
    return state_.get();
}

const Value& StoredValue::value() const
{
    static const Value kNull;
    const State* state = decodedState();
    return state ? state->value : kNull;
}

bool StoredValue::readable() const
{
    const State* state = decodedState();
    return !state || state->readable;
}

Bytes StoredValue::encoding() const
{
    // Still encoded: the bytes as stored (a decoding that was made since
    // leaves them in place).
    if (state_ && !state_->bytes.empty())
        return Bytes(state_->bytes.begin(), state_->bytes.end());
    Bytes out;
    // Stored dictionaries come from parsed vlist files, which never nest
    // deeper than the codec allows; a failure leaves an empty blob, which
    // reads back as unreadable.
    if (encodeValue(value(), out))
        out.clear();
    return out;
}

} // namespace tv::platform
