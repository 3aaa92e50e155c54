// tvkit's request commands against the real daemon: add, remove, elect and
// unelect, plain and with --json, and their help; and a path walk that ends
// at its first failure.
#include "tests/support/PlugInBundles.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

class TvkitCommandsTest : public ::testing::Test {
protected:
    TvkitCommandsTest() : daemon_({"application_roots = " + apps_.path()}) {}
    void SetUp() override { ASSERT_TRUE(daemon_.start()) << daemon_.log(); }

    test::ProcessResult tvkit(std::vector<std::string> args)
    {
        args.insert(args.begin(), {TVKIT_BINARY, "--service", daemon_.socketPath()});
        return test::runProgram(args, daemon_.clientEnv());
    }

    test::TempDir apps_;
    test::TestDaemon daemon_;
};

TEST_F(TvkitCommandsTest, CommandsSendTheirRequestsAndReportTheAnswer)
{
    for (const char* command : {"add", "remove", "elect", "unelect"}) {
        auto help = tvkit({"help", command});
        EXPECT_EQ(help.out.rfind(std::string("usage: tvkit ") + command + " [--json] ", 0), 0u) << help.out;
        EXPECT_EQ(tvkit({command, "--help"}).out, help.out);
        EXPECT_EQ(tvkit({command}).exitStatus, 2);
    }
    std::string bundle = daemon_.root() + "/bundles/Extra.vext";
    test::makePlugInBundle(bundle, "com.example.extra");
    auto added = tvkit({"add", "--json", bundle});
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

    auto unknown = tvkit({"elect", "--json", "FFFFFFFF-0000-4000-8000-000000000000"});
    EXPECT_EQ(unknown.exitStatus, 1);
    EXPECT_NE(unknown.out.find("\"error\": \"no such plugin (uuid not found)\""), std::string::npos) << unknown.out;
    EXPECT_EQ(tvkit({"unelect", "not-a-uuid"}).exitStatus, 2);
    auto refused = tvkit({"remove", bundle});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_EQ(refused.err, "tvkit: tvd refused the request: caller lacks entitlement for this operation (error 11)\n");
    EXPECT_TRUE(daemon_.waitForLog(" to remove plug-in at " + bundle + " - client lacks required entitlement"));
}

TEST_F(TvkitCommandsTest, APathWalkEndsAtItsFirstFailure)
{
    // The path after a refused one is never registered, on this turn of the
    // walk or a later one.
    std::string late = daemon_.root() + "/bundles/Late.vext", next = daemon_.root() + "/bundles/Next.vext";
    test::makePlugInBundle(late, "com.example.late");
    test::makePlugInBundle(next, "com.example.next");
    auto r = tvkit({"raw", R"({"request": "add", "version": 3, "paths": ["/x\u0000y", ")" + late + "\"]}"});
    EXPECT_NE(r.out.find("\"errorcode\": 9"), std::string::npos) << r.out;
    EXPECT_EQ(tvkit({"add", next}).exitStatus, 0);
    ASSERT_TRUE(test::installedUuid(daemon_, "com.example.next"));
    EXPECT_EQ(daemon_.log().find("plug-in INSTALLED:com.example.late"), std::string::npos);
}

} // namespace
} // namespace tv
