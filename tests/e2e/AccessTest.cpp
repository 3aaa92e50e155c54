// "access" through the real daemon and the client library: one read-only
// token per named plug-in's bundle, in request order.
#include "Tarvik/TvDaemonClient.h"
#include "platform/PlatformConfig.h"
#include "platform/ipc/LinuxVynService.h"
#include "tests/support/PlugInBundles.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>

namespace tv {
namespace {

TEST(AccessTest, OneTokenPerNamedPlugInInRequestOrder)
{
    test::TempDir apps;
    test::TestDaemon daemon({"application_roots = " + apps.path()});
    ASSERT_TRUE(daemon.start()) << daemon.log();
    const std::string a = test::makeApplicationWithPlugIn(apps.path(), "com.example.a");
    const std::string b = test::makeApplicationWithPlugIn(apps.path(), "com.example.b");
    const Uuid uuidA = test::installedUuid(daemon, "com.example.a").value_or(Uuid());
    const Uuid uuidB = test::installedUuid(daemon, "com.example.b").value_or(Uuid());
    ASSERT_FALSE(uuidA.isNil() || uuidB.isNil()) << daemon.log();

    auto vyn = platform::LinuxVynService::create(*platform::PlatformConfig::loadFile(daemon.configPath()));
    TvDaemonClient client(vyn, daemon.socketPath().c_str());
    auto access = [&](const std::vector<Uuid>& uuids) {
        std::promise<platform::VynEvent> answered;
        client.accessPlugInsFlagsReply(uuids, 0, [&](const platform::VynEvent& e) { answered.set_value(e); });
        auto answer = answered.get_future().get();
        EXPECT_FALSE(TvDaemonClient::errorInReply(answer));
        const Array* tokens = platform::eventMessage(answer)->get("extensions").asArray();
        return tokens ? *tokens : Array{Value("<no extensions>")};
    };

    const Array tokens = access({uuidA, uuidB, uuidA});
    ASSERT_EQ(tokens.size(), 3u);
    const std::string canonicalA = std::filesystem::canonical(a).string();
    const std::string canonicalB = std::filesystem::canonical(b).string();
    EXPECT_NE(tokens[0].asString()->find(canonicalA), std::string::npos) << tokens[0].description();
    EXPECT_NE(tokens[1].asString()->find(canonicalB), std::string::npos) << tokens[1].description();
    EXPECT_NE(tokens[2].asString()->find(canonicalA), std::string::npos);
    EXPECT_EQ(access({}), Array{});
}

} // namespace
} // namespace tv
