// Registering and unregistering plug-in bundles by path through the real
// daemon, with tvkit as the client: path handling of the request frame and
// the manager entitlement, read from an administrator's drop-in.
#include "platform/formats/Vlist.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

namespace tv {
namespace {

using test::runProgram;
using test::TestDaemon;

class RegistrationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(daemon_.root() + "/entitlements.d");
        ::chmod((daemon_.root() + "/entitlements.d").c_str(), 0755);
        ASSERT_TRUE(daemon_.start()) << daemon_.log();
        bundle_ = makePlugIn("Extra.vext", "com.example.extra");
    }

    std::string makePlugIn(const std::string& name, const std::string& identifier)
    {
        std::string path = daemon_.root() + "/bundles/" + name;
        std::filesystem::create_directories(path);
        Value info{{"KbBundleIdentifier", identifier},
                   {"KbBundleVersion", "1"},
                   {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.veltra.share-services"}}}};
        EXPECT_FALSE(platform::writeVlistFileAtomically(path + "/Info.vlist", info));
        return path;
    }

    // Gives tvkit the entitlements `value` for "com.veltra.private.tarvik.manager".
    void entitleTvkit(Value value)
    {
        Value dropIn{{"Executable", std::filesystem::canonical(TVKIT_BINARY).string()},
                     {"Entitlements", Value{{"com.veltra.private.tarvik.manager", std::move(value)}}}};
        EXPECT_FALSE(platform::writeVlistFileAtomically(daemon_.root() + "/entitlements.d/tvkit.vlist", dropIn));
    }

    test::ProcessResult raw(const std::string& type, const std::vector<std::string>& paths)
    {
        std::string json = R"({"request": ")" + type + R"(", "version": 3, "paths": [)";
        for (std::size_t i = 0; i < paths.size(); ++i)
            json += (i ? ", \"" : "\"") + paths[i] + "\"";
        json += "]}";
        return runProgram({TVKIT_BINARY, "--service", daemon_.socketPath(), "raw", json}, daemon_.clientEnv());
    }

    TestDaemon daemon_;
    std::string bundle_;
};

TEST_F(RegistrationTest, AddWalksPathsInOrderAndStopsAtTheFirstBadOne)
{
    auto ok = raw("add", {bundle_, daemon_.root() + "/bundles/../bundles/Extra.vext"});
    EXPECT_EQ(ok.exitStatus, 0) << ok.out << ok.err;
    EXPECT_EQ(ok.out, "{}\n");
    EXPECT_EQ(raw("add", {}).exitStatus, 0);

    std::string missing = daemon_.root() + "/bundles/Missing.vext";
    auto unresolved = raw("add", {missing});
    EXPECT_EQ(unresolved.exitStatus, 1);
    EXPECT_NE(unresolved.out.find("invalid plugin path: " + missing), std::string::npos) << unresolved.out;

    std::string notBundle = daemon_.root() + "/bundles";
    auto refused = raw("add", {notBundle});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.out.find("\"errorcode\": 2"), std::string::npos);
    EXPECT_NE(refused.out.find("unable to register plug-in at " + notBundle), std::string::npos);
    EXPECT_TRUE(daemon_.waitForLog("failed to register plug-in at " + notBundle));
}

TEST_F(RegistrationTest, RemoveNeedsTheManagerEntitlement)
{
    ASSERT_EQ(raw("add", {bundle_}).exitStatus, 0);

    // No entitlement and false count as absent.
    for (Value value : {Value(), Value(false)}) {
        SCOPED_TRACE(value.description());
        if (!value.isNull())
            entitleTvkit(value);
        auto r = raw("remove", {bundle_});
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_NE(r.out.find("\"errorcode\": 11"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("caller lacks entitlement for this operation"), std::string::npos);
    }
    EXPECT_TRUE(daemon_.waitForLog("to remove plug-in at " + bundle_ + " - client lacks required entitlement"));

    // Any other value entitles: a string does, and so does true.
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
