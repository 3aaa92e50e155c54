#include "tests/kill/KilledDaemon.h"

#include "tests/support/PlugInBundles.h"

#include <filesystem>
#include <sqlite3.h>

namespace tv::test {

KilledDaemon::KilledDaemon(std::string annotationsFile, std::string databaseFile)
    : daemon({"application_roots = " + apps.path(),
              databaseFile.empty() ? std::string() : "registry_database = " + databaseFile}),
      annotations(annotationsFile.empty() ? daemon.root() + "/Annotations" : annotationsFile),
      database(databaseFile.empty() ? daemon.root() + "/registry.sqlite" : databaseFile)
{
    entitleManager(daemon, "/proc/self/exe");
    for (int i = 0; i < 4; ++i) {
        std::string dir = daemon.root() + "/bundles/B" + std::to_string(i) + ".vext";
        makePlugInBundle(dir, "com.example.b" + std::to_string(i));
        bundles.push_back(std::filesystem::canonical(dir).string());
    }
}

bool KilledDaemon::start()
{
    connection_.reset();
    if (!daemon.start({"-d", annotations}))
        return false;
    connection_ = std::make_unique<DaemonConnection>(daemon);
    if (plugIn.isNil()) { // first start: the plug-in is installed while the daemon watches, to learn its UUID
        makeApplicationWithPlugIn(apps.path(), "com.example.a");
        plugIn = installedUuid(daemon, "com.example.a").value_or(Uuid());
    }
    return !plugIn.isNil();
}

KilledDaemon::Answer KilledDaemon::ask(const std::function<void(TvDaemonClient::Reply)>& send)
{
    platform::VynEvent answer = connection_->ask(send);
    if (platform::eventError(answer))
        return {true, -1, platform::eventError(answer)->description};
    auto error = TvDaemonClient::errorInReply(answer);
    return error ? Answer{false, error->code, error->description.value_or("")} : Answer{};
}

KilledDaemon::Answer KilledDaemon::annotate(const Value& change)
{
    return ask([&](auto reply) { connection_->client().setPluginAnnotationsAnnotationsReply({plugIn}, change, reply); });
}

KilledDaemon::Answer KilledDaemon::pathRequest(const std::string& type, const std::string& path)
{
    TvDaemonClient& c = connection_->client();
    return ask([&](auto reply) { type == "add" ? c.addPlugInsReply({path}, reply) : c.removePlugInsReply({path}, reply); });
}

std::string sqliteIntegrity(const std::string& path)
{
    sqlite3* db = nullptr;
    std::string result = "cannot open";
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        sqlite3_stmt* st = nullptr;
        result = "cannot check";
        if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &st, nullptr) == SQLITE_OK &&
            sqlite3_step(st) == SQLITE_ROW)
            result = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
        sqlite3_finalize(st);
    }
    sqlite3_close(db);
    return result;
}

std::set<std::string> registeredPaths(const std::string& path)
{
    std::set<std::string> paths;
    sqlite3* db = nullptr;
    sqlite3_stmt* st = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, "SELECT path FROM plugins WHERE by_path = 1", -1, &st, nullptr) == SQLITE_OK)
        while (sqlite3_step(st) == SQLITE_ROW)
            paths.insert(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
    sqlite3_finalize(st);
    sqlite3_close(db);
    return paths;
}

} // namespace tv::test
