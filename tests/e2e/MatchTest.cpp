// Host discovery through the real daemon: "match" requests from tvkit over
// the socket, against applications and system plug-ins on disk.
#include "platform/formats/Vlist.h"
#include "tests/support/PlugInBundles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace tv {
namespace {

constexpr const char* kPoint = "com.veltra.share-services";

class MatchTest : public ::testing::Test {
protected:
    MatchTest()
        : daemon_({"application_roots = " + disk_.file("Applications"), "system_volume_root = " + disk_.file("System"),
                   "system_plugins_dir = " + disk_.file("System/Library/PlugIns")})
    {
    }

    // A bundle with an executable; returns its canonical path.
    std::string bundle(const std::string& relative, Value info, const Value& entitlements = Value())
    {
        std::string dir = disk_.file(relative);
        std::filesystem::create_directories(dir);
        EXPECT_FALSE(platform::writeVlistFileAtomically(dir + "/Info.vlist", info.with("KbBundleExecutable", "run")));
        if (!entitlements.isNull()) {
            EXPECT_FALSE(platform::writeVlistFileAtomically(dir + "/Entitlements.vlist", entitlements));
        }
        std::filesystem::copy_file("/bin/true", dir + "/run");
        return std::filesystem::canonical(dir).string();
    }
    std::string plugIn(const std::string& relative, const std::string& id, const std::string& version,
                       const Value& entitlements = Value())
    {
        return bundle(relative,
                      Value{{"KbBundleIdentifier", id},
                            {"KbBundleVersion", version},
                            {"KoExtension", Value{{"KoExtensionPointIdentifier", kPoint},
                                                  {"KoExtensionAttributes", Value{{"KoExtensionVersion", version}}}}}},
                      entitlements);
    }
    test::ProcessResult tvkit(std::vector<std::string> args) { return daemon_.tvkit(std::move(args)); }

    test::TempDir disk_;
    test::TestDaemon daemon_;
};

TEST_F(MatchTest, HostsGetTheNewestCopyOverrideMarksElectionsAndTheWireCodes)
{
    bundle("Applications/One.app", Value{{"KbBundleIdentifier", "com.test.one"}});
    bundle("Applications/Two.app", Value{{"KbBundleIdentifier", "com.test.two"}});
    std::string older = plugIn("Applications/One.app/PlugIns/Dup.vext", "com.test.dup", "1.2");
    std::string newer = plugIn("Applications/Two.app/PlugIns/Dup.vext", "com.test.dup", "1.10");
    std::string replacer = plugIn("Applications/One.app/PlugIns/New.vext", "com.test.new", "1",
                                  Value{{"com.veltra.developer.replace-plugin", "com.test.sys"}});
    std::string elected = plugIn("Applications/One.app/PlugIns/Auto.vext", "com.test.auto", "1",
                                 Value{{"com.veltra.developer.auto-elect-plugin", true}});
    std::string sys = plugIn("System/Library/PlugIns/Sys.vext", "com.test.sys", "1");
    ASSERT_TRUE(daemon_.start()) << daemon_.log();

    auto all = tvkit({"match", kPoint});
    ASSERT_EQ(all.exitStatus, 0) << all.err;
    EXPECT_NE(all.out.find("com.test.dup\t1.10\t"), std::string::npos) << all.out;
    EXPECT_NE(all.out.find("\t1\t" + elected + "\n"), std::string::npos);
    EXPECT_NE(all.out.find("\t0\t" + replacer + "\toverrides=com.test.sys\n"), std::string::npos);
    std::string uuid = all.out.substr(all.out.find("com.test.new\t1\t") + 15, 36);
    EXPECT_NE(all.out.find("\t0\t" + sys + "\toverridden-by=" + uuid + "\n"), std::string::npos);
    EXPECT_TRUE(daemon_.waitForLog("match returned 4 plug-ins"));

    EXPECT_NE(tvkit({"match", "--all-versions", kPoint}).out.find(older), std::string::npos);
    auto json = tvkit({"match", "--json", "--system-only", kPoint});
    EXPECT_NE(json.out.find("\"path\": \"" + sys + "\""), std::string::npos) << json.out;
    EXPECT_EQ(json.out.find(newer), std::string::npos);
    auto chosen = tvkit({"match", kPoint, R"({"KoUserElection": "=1"})"});
    EXPECT_NE(chosen.out.find(elected), std::string::npos);
    EXPECT_EQ(std::count(chosen.out.begin(), chosen.out.end(), '\n'), 1);

    auto unprivileged = tvkit({"match", "--all", kPoint});
    EXPECT_EQ(unprivileged.exitStatus, 1);
    EXPECT_NE(unprivileged.err.find("(code 11): unauthorized discovery flag (TvDiscoverAll)"), std::string::npos)
        << unprivileged.err;
    EXPECT_TRUE(daemon_.running());
}

// "-c" sets the record cache's limit: filling it past the limit empties it,
// and the answer is the same.
TEST_F(MatchTest, TheCacheLimitFromTheCommandLineTakesEffect)
{
    bundle("Applications/One.app", Value{{"KbBundleIdentifier", "com.test.one"}});
    for (const char* name : {"a", "b", "c", "d"})
        plugIn(std::string("Applications/One.app/PlugIns/") + name + ".vext", std::string("com.test.") + name, "1");
    ASSERT_TRUE(daemon_.start({"-c", "2", "-v"})) << daemon_.log();
    for (int round = 0; round < 2; ++round) {
        auto found = tvkit({"match", "--json", kPoint});
        ASSERT_EQ(found.exitStatus, 0) << found.err;
        EXPECT_EQ(std::count(found.out.begin(), found.out.end(), '{'), 4) << found.out;
    }
    EXPECT_TRUE(daemon_.waitForLog("purging cache for 3 > 2")) << daemon_.log();
}

// "tvkit list" shows every installed copy to a manager, and tells anyone
// else what it needs.
TEST_F(MatchTest, ListShowsEveryInstalledCopyToTheManagerOnly)
{
    bundle("Applications/One.app", Value{{"KbBundleIdentifier", "com.test.one"}});
    bundle("Applications/Two.app", Value{{"KbBundleIdentifier", "com.test.two"}});
    plugIn("Applications/One.app/PlugIns/Dup.vext", "com.test.dup", "1");
    plugIn("Applications/Two.app/PlugIns/Dup.vext", "com.test.dup", "1");
    plugIn("System/Library/PlugIns/Sys.vext", "com.test.sys", "1");
    ASSERT_TRUE(daemon_.start()) << daemon_.log();

    auto refused = tvkit({"list"});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("needs the entitlement com.veltra.private.tarvik.manager"), std::string::npos)
        << refused.err;

    test::entitleManager(daemon_, TVKIT_BINARY);
    auto listed = tvkit({"list", "--json"});
    ASSERT_EQ(listed.exitStatus, 0) << listed.err;
    EXPECT_EQ(std::count(listed.out.begin(), listed.out.end(), '{'), 3) << listed.out;
    EXPECT_NE(listed.out.find(std::string("\"extensionPoint\": \"") + kPoint + "\""), std::string::npos) << listed.out;
    EXPECT_EQ(tvkit({"list", "com.other.point"}).out, "");
}

} // namespace
} // namespace tv
