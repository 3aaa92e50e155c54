// The registry database through the real daemon: installs and uninstalls
// that the application registry notices on disk are logged with the
// record's facts. (Uninstalled plug-ins leaving the job manager's table is
// the server's unit test.)
#include "tests/support/PlugInBundles.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace tv {
namespace {

TEST(DatabaseTest, InstallsAndUninstallsOnDiskAreLogged)
{
    test::TempDir apps;
    test::TestDaemon daemon({"application_roots = " + apps.path()});
    std::string before = test::makeApplicationWithPlugIn(apps.path(), "com.example.clip");
    ASSERT_TRUE(daemon.start()) << daemon.log();

    // An install after start.
    std::string added = test::makeApplicationWithPlugIn(apps.path(), "com.example.note");
    EXPECT_TRUE(daemon.waitForLog("plug-in INSTALLED:com.example.note com.example.note(1) ")) << daemon.log();
    EXPECT_TRUE(daemon.waitForLog(" " + added + "\n"));

    // An uninstall: logged with the record's facts.
    std::filesystem::remove_all(apps.file("com.example.clip.app"));
    ASSERT_TRUE(daemon.waitForLog("plug-in UNINSTALLED:com.example.clip com.example.clip(1) ")) << daemon.log();
    std::string log = daemon.log();
    auto at = log.find("plug-in UNINSTALLED:com.example.clip com.example.clip(1) ");
    std::string uuid = log.substr(log.find(')', at) + 2, 36);
    EXPECT_NE(log.find("plug-in UNINSTALLED:com.example.clip com.example.clip(1) " + uuid + " " + before), std::string::npos)
        << log;
    EXPECT_TRUE(daemon.running());
}

} // namespace
} // namespace tv
