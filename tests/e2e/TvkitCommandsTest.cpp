// tvkit's request commands against the real daemon: add, remove, elect,
// unelect, ready and access, plain, with --json and as raw requests (hold
// and release in LockTest; the help of all of them here); the path handling
// of the request frame and the manager entitlement, read from an
// administrator's drop-in.
#include "tests/support/PlugInBundles.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tv {
namespace {

class TvkitCommandsTest : public ::testing::Test {
protected:
    TvkitCommandsTest() : daemon_({"application_roots = " + apps_.path()}) {}
    void SetUp() override
    {
        ASSERT_TRUE(daemon_.start()) << daemon_.log();
        test::makePlugInBundle(bundle_, "com.example.extra");
    }

    test::ProcessResult tvkit(std::vector<std::string> args) { return daemon_.tvkit(std::move(args)); }
    test::ProcessResult raw(const std::string& type, const std::vector<std::string>& paths)
    {
        std::string json = R"({"request": ")" + type + R"(", "version": 3, "paths": [)";
        for (std::size_t i = 0; i < paths.size(); ++i)
            json += (i ? ", \"" : "\"") + paths[i] + "\"";
        return tvkit({"raw", json + "]}"});
    }
    void entitleTvkit(const Value& value) { test::entitleManager(daemon_, TVKIT_BINARY, value); }

    test::TempDir apps_;
    test::TestDaemon daemon_;
    std::string bundle_ = daemon_.root() + "/bundles/Extra.vext";
};

TEST_F(TvkitCommandsTest, CommandsSendTheirRequestsAndReportTheAnswer)
{
    // The overview and the man page are kept in step by tests/tools/docs.sh.
    for (const char* command : {"add", "remove", "elect", "unelect", "ready", "access", "hold", "release"}) {
        auto help = tvkit({command, "--help"});
        EXPECT_EQ(help.out.rfind(std::string("usage: tvkit ") + command + " [--json] ", 0), 0u) << help.out;
        EXPECT_EQ(tvkit({command}).exitStatus, 2);
    }
    for (std::vector<std::string> bad : {std::vector<std::string>{"raw", "{not json"}, {"raw", "[1, 2]"}, {"frobnicate"}, {}})
        EXPECT_EQ(tvkit(bad).exitStatus, 2) << (bad.empty() ? "" : bad.back());
    auto added = tvkit({"add", "--json", bundle_});
    EXPECT_EQ(added.out, "{}\n");
    EXPECT_EQ(added.exitStatus, 0) << added.err;

    test::makeApplicationWithPlugIn(apps_.path(), "com.example.pick");
    auto uuid = test::installedUuid(daemon_, "com.example.pick");
    ASSERT_TRUE(uuid);
    for (const char* command : {"elect", "unelect"}) {
        auto r = tvkit({command, uuid->string()});
        EXPECT_EQ(r.exitStatus, 0) << r.err;
        EXPECT_EQ(r.out, "");
    }
    EXPECT_TRUE(daemon_.waitForLog("com.example.pick(" + uuid->string() + ") election := 1"));
    EXPECT_TRUE(daemon_.waitForLog("com.example.pick(" + uuid->string() + ") election := 0"));
    auto ready = tvkit({"ready", uuid->string()});
    EXPECT_EQ(ready.exitStatus, 0) << ready.err;
    EXPECT_TRUE(daemon_.waitForLog("to use plug-in com.example.pick("));
    auto access = tvkit({"access", uuid->string(), uuid->string()});
    EXPECT_EQ(access.exitStatus, 0) << access.err;
    EXPECT_EQ(std::count(access.out.begin(), access.out.end(), '\n'), 2) << access.out;

    auto unknown = tvkit({"elect", "--json", "FFFFFFFF-0000-4000-8000-000000000000"});
    EXPECT_EQ(unknown.exitStatus, 1);
    EXPECT_NE(unknown.out.find("\"error\": \"no such plugin (uuid not found)\""), std::string::npos) << unknown.out;
    EXPECT_EQ(tvkit({"unelect", "not-a-uuid"}).exitStatus, 2);
    auto refused = tvkit({"remove", bundle_});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_EQ(refused.err, "tvkit: tvd refused the request: caller lacks entitlement for this operation (error 11)\n");
}

// Paths are walked in order, canonical; long lists go in batches, and the
// first bad path still ends the command.
TEST_F(TvkitCommandsTest, AddWalksPathsInBatchesAndStopsAtTheFirstBadOne)
{
    auto ok = raw("add", {bundle_, daemon_.root() + "/bundles/../bundles/Extra.vext"});
    EXPECT_EQ(ok.exitStatus, 0) << ok.out << ok.err;
    EXPECT_EQ(ok.out, "{}\n");
    EXPECT_EQ(raw("add", {}).exitStatus, 0);
    std::string notBundle = daemon_.root() + "/bundles";
    auto refused = raw("add", {notBundle});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.out.find("\"errorcode\": 2"), std::string::npos);
    EXPECT_NE(refused.out.find("unable to register plug-in at " + notBundle), std::string::npos);
    EXPECT_TRUE(daemon_.waitForLog("failed to register plug-in at " + notBundle));

    std::vector<std::string> args(250, bundle_);
    args.insert(args.begin(), "add");
    EXPECT_EQ(tvkit(args).exitStatus, 0);
    const std::string missing = daemon_.root() + "/bundles/Missing.vext";
    args[130] = missing;
    auto stopped = tvkit(args);
    EXPECT_EQ(stopped.exitStatus, 1);
    EXPECT_NE(stopped.err.find("invalid plugin path: " + missing), std::string::npos) << stopped.err;
}

TEST_F(TvkitCommandsTest, StatusIsForTheManagerAndVersionForAnyone)
{
    auto version = tvkit({"--version"});
    EXPECT_EQ(version.exitStatus, 0);
    EXPECT_EQ(version.out.rfind("tvkit ", 0), 0u) << version.out;

    auto refused = tvkit({"status"});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("caller lacks entitlement for this operation (error 11)"), std::string::npos)
        << refused.err;
    EXPECT_TRUE(daemon_.waitForLog("for the daemon's status - client lacks required entitlement"));

    entitleTvkit(Value(true));
    auto json = tvkit({"status", "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    for (const char* key : {"service", "pid", "uptime", "connections", "requests", "holds", "cached", "cacheLimit"})
        EXPECT_NE(json.out.find(std::string("\"") + key + "\": "), std::string::npos) << key << " in " << json.out;
    EXPECT_NE(json.out.find("\"service\": \"" + daemon_.socketPath() + "\""), std::string::npos) << json.out;
    auto text = tvkit({"status"});
    ASSERT_EQ(text.exitStatus, 0) << text.err;
    EXPECT_NE(text.out.find("service      " + daemon_.socketPath() + "\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("holds        0\n"), std::string::npos) << text.out;

    // The status listener answers nothing else.
    auto other = test::runProgram({TVKIT_BINARY, "--service", daemon_.socketPath() + ".status", "raw",
                                   R"({"request": "match", "version": 3})"},
                                  daemon_.clientEnv());
    EXPECT_EQ(other.exitStatus, 1);
    EXPECT_NE(other.out.find("unrecognized request"), std::string::npos) << other.out;

    auto absent = test::runProgram({TVKIT_BINARY, "--service", daemon_.root() + "/none", "status"}, daemon_.clientEnv());
    EXPECT_EQ(absent.exitStatus, 69);
    EXPECT_NE(absent.err.find("is tvd running?"), std::string::npos) << absent.err;
}

TEST_F(TvkitCommandsTest, RemoveNeedsTheManagerEntitlement)
{
    // Which entitlement values count is TvdVynClientTest's; here that the
    // drop-in's value reaches the check.
    ASSERT_EQ(raw("add", {bundle_}).exitStatus, 0);
    auto refused = raw("remove", {bundle_});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.out.find("\"errorcode\": 11"), std::string::npos) << refused.out;
    EXPECT_TRUE(daemon_.waitForLog("to remove plug-in at " + bundle_ + " - client lacks required entitlement"));
    entitleTvkit(Value("yes"));
    auto removed = raw("remove", {bundle_});
    EXPECT_EQ(removed.exitStatus, 0) << removed.out;
    // An unregistered path, even one that does not exist, reaches the
    // registry, which refuses it.
    std::string gone = daemon_.root() + "/bundles/Gone.vext";
    auto r = raw("remove", {gone});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find("\"errorcode\": 9"), std::string::npos);
    EXPECT_NE(r.out.find("no plugin at " + gone), std::string::npos) << r.out;
}

} // namespace
} // namespace tv
