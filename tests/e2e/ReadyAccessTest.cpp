// "ready" and "access" through the real daemon and the client library:
// every named plug-in is checked before any is enabled for the host, each
// kept plug-in is enabled once, and "access" answers one read-only token per
// named plug-in's bundle, in request order. Installs and uninstalls noticed
// on disk are logged with the record's facts.
#include "platform/formats/Vlist.h"
#include "tests/support/DaemonConnection.h"
#include "tests/support/PlugInBundles.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace tv {
namespace {

class ReadyAccessTest : public ::testing::Test {
protected:
    ReadyAccessTest() : daemon_({"application_roots = " + apps_.path()}) {}

    void SetUp() override
    {
        ASSERT_TRUE(daemon_.start()) << daemon_.log();
        connection_ = std::make_unique<test::DaemonConnection>(daemon_);
    }

    // An application holding the plug-in `identifier` with an executable;
    // `extension` replaces its "KoExtension".
    Uuid install(const std::string& identifier, const Value& extension = Value())
    {
        const std::string bundle = test::makeApplicationWithPlugIn(apps_.path(), identifier, "/bin/true");
        if (!extension.isNull()) {
            auto info = platform::readVlistFile(bundle + "/Info.vlist");
            EXPECT_FALSE(platform::writeVlistFileAtomically(bundle + "/Info.vlist", info->with("KoExtension", extension)));
        }
        return test::installedUuid(daemon_, identifier).value_or(Uuid());
    }

    std::string ready(const std::vector<Uuid>& uuids)
    {
        auto error = TvDaemonClient::errorInReply(
            connection_->ask([&](auto reply) { connection_->client().readyPlugInsFlagsReply(uuids, 0, reply); }));
        return error ? std::to_string(error->code) + " " + error->description.value_or("") : "ok";
    }
    std::size_t enabled(const std::string& identifier)
    {
        const std::string log = daemon_.log(), line = "to use plug-in " + identifier + "(";
        std::size_t n = 0;
        for (auto at = log.find(line); at != std::string::npos; at = log.find(line, at + 1))
            ++n;
        return n;
    }

    test::TempDir apps_;
    test::TestDaemon daemon_;
    std::unique_ptr<test::DaemonConnection> connection_;
};

TEST_F(ReadyAccessTest, ReadyChecksEveryPlugInFirstThenEnablesEachOnce)
{
    const Uuid run = install("com.example.run");
    const Uuid demanding = install("com.example.demanding",
                                   Value{{"KoExtensionPointIdentifier", "com.veltra.keyboard-service"},
                                         {"KoExtensionHostEntitlement", "com.example.host-right"}});
    ASSERT_FALSE(run.isNil() || demanding.isNil()) << daemon_.log();

    EXPECT_EQ(ready({run, run}), "ok");
    ASSERT_TRUE(daemon_.waitForLog("assigning plug-in com.example.run("));
    EXPECT_EQ(enabled("com.example.run"), 1u);
    EXPECT_NE(daemon_.log().find("to plugin sandbox"), std::string::npos);
    // HOME is the data container's path, without a directory URL's "/".
    const std::string container = "/Data/PlugIn/" + run.string();
    EXPECT_NE(daemon_.log().find(container + "\""), std::string::npos) << daemon_.log();
    EXPECT_EQ(daemon_.log().find(container + "/\""), std::string::npos);

    // A host right refused ends the request before anything is enabled.
    EXPECT_EQ(ready({run, demanding}), "11 access to plugin com.example.demanding denied: the host does not have "
                                       "the \"com.example.host-right\" entitlement");
    EXPECT_EQ(enabled("com.example.run"), 1u);
    EXPECT_EQ(ready({}), "ok");
}

// A plug-in uninstalled a moment before "ready" is still served, refused as
// unknown, or refused because its bundle is gone; once the registry has seen
// it go (logged with the record's facts, as its install was), it is refused
// as unknown.
TEST_F(ReadyAccessTest, ReadyForAPlugInUninstalledAMomentBefore)
{
    const Uuid gone = install("com.example.gone");
    ASSERT_FALSE(gone.isNil()) << daemon_.log();
    const std::string path = std::filesystem::canonical(apps_.path() + "/com.example.gone.app/PlugIns/P.vext");
    const std::string facts = "com.example.gone com.example.gone(1) " + gone.string() + " " + path + "\n";
    EXPECT_NE(daemon_.log().find("plug-in INSTALLED:" + facts), std::string::npos) << daemon_.log();
    std::filesystem::remove_all(apps_.path() + "/com.example.gone.app");
    const std::string unknown = "4 no such plugin (uuid not found)";
    const std::string first = ready({gone});
    EXPECT_TRUE(first == "ok" || first == unknown ||
                first == "4 cannot obtain executable path for plug-in com.example.gone(" + gone.string() + ")")
        << first;
    ASSERT_TRUE(daemon_.waitForLog("plug-in UNINSTALLED:" + facts)) << daemon_.log();
    EXPECT_EQ(ready({gone}), unknown);
}

TEST_F(ReadyAccessTest, AccessAnswersOneTokenPerNamedPlugInInRequestOrder)
{
    const Uuid a = install("com.example.a"), b = install("com.example.b");
    ASSERT_FALSE(a.isNil() || b.isNil()) << daemon_.log();
    auto access = [&](const std::vector<Uuid>& uuids) {
        auto answer = connection_->ask([&](auto reply) { connection_->client().accessPlugInsFlagsReply(uuids, 0, reply); });
        EXPECT_FALSE(TvDaemonClient::errorInReply(answer));
        const Array* tokens = platform::eventMessage(answer)->get("extensions").asArray();
        return tokens ? *tokens : Array{Value("<no extensions>")};
    };
    const Array tokens = access({a, b, a});
    ASSERT_EQ(tokens.size(), 3u);
    const std::string pathA = std::filesystem::canonical(apps_.path() + "/com.example.a.app/PlugIns/P.vext");
    const std::string pathB = std::filesystem::canonical(apps_.path() + "/com.example.b.app/PlugIns/P.vext");
    EXPECT_NE(tokens[0].asString()->find(pathA), std::string::npos) << tokens[0].description();
    EXPECT_NE(tokens[1].asString()->find(pathB), std::string::npos) << tokens[1].description();
    EXPECT_NE(tokens[2].asString()->find(pathA), std::string::npos);
    EXPECT_EQ(access({}), Array{});
}

} // namespace
} // namespace tv
