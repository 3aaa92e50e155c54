// The registry database through the real daemon: installs and uninstalls
// that the application registry notices on disk are logged, and an
// uninstalled plug-in is taken off the job manager's table.
#include "tests/support/PlugInBundles.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace tv {
namespace {

TEST(DatabaseTest, InstallsAndUninstallsOnDiskAreLoggedAndUninstallsReachTheJobManager)
{
    test::TempDir apps;
    test::TestDaemon daemon({"application_roots = " + apps.path()});
    std::string before = test::makeApplicationWithPlugIn(apps.path(), "com.example.clip");
    ASSERT_TRUE(daemon.start()) << daemon.log();

    // An install after start.
    std::string added = test::makeApplicationWithPlugIn(apps.path(), "com.example.note");
    EXPECT_TRUE(daemon.waitForLog("plug-in INSTALLED:com.example.note com.example.note(1) ")) << daemon.log();
    EXPECT_TRUE(daemon.waitForLog(" " + added + "\n"));

    // An uninstall: logged with the record's facts, then the job manager is
    // asked to terminate it, and its one answer is logged.
    auto uuid = test::installedUuid(daemon, "com.example.clip");
    ASSERT_TRUE(uuid);
    std::filesystem::remove_all(std::filesystem::path(before).parent_path().parent_path());
    EXPECT_TRUE(daemon.waitForLog("plug-in UNINSTALLED:com.example.clip com.example.clip(1) " + uuid->string() + " " +
                                  before + "\n"))
        << daemon.log();
    EXPECT_TRUE(daemon.waitForLog("requesting jobd termination of plug-in: com.example.clip(1) " + uuid->string()));
    EXPECT_TRUE(daemon.waitForLog("jobd reported no plug-ins on record"));
    EXPECT_TRUE(daemon.running());
}

} // namespace
} // namespace tv
