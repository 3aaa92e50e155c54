// KilledDaemon: the real daemon over a private platform for the kill and
// disk tests: one application plug-in ("com.example.a") whose election is
// changed, a few bundles to register and remove by path, and this test
// program entitled as a manager (so that it may "remove"). Requests go
// through the client library, one at a time.
#pragma once

#include "tests/support/DaemonConnection.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace tv::test {

class KilledDaemon {
public:
    // `annotations` and `database` default to files in the daemon's root.
    explicit KilledDaemon(std::string annotations = "", std::string database = "");

    // Starts (or restarts) the daemon and connects to it.
    bool start();

    struct Answer {
        bool transportFailed = false; // no reply: the connection went away
        std::int64_t code = 0;        // the reply's error code (0: success)
        std::string text;
    };
    Answer annotate(const Value& change);
    Answer annotate(std::int64_t election) { return annotate(Value{{"election", election}}); }
    Answer pathRequest(const std::string& type, const std::string& path);

    TempDir apps;
    TestDaemon daemon;
    std::string annotations, database;
    std::vector<std::string> bundles; // canonical paths
    Uuid plugIn;                      // "com.example.a"

private:
    Answer ask(const std::function<void(TvDaemonClient::Reply)>& send);

    std::unique_ptr<DaemonConnection> connection_;
};

// The answer of SQLite's "PRAGMA integrity_check" on `path` ("ok" when sound).
std::string sqliteIntegrity(const std::string& path);
// The paths the registry database holds as registered by path.
std::set<std::string> registeredPaths(const std::string& path);

} // namespace tv::test
