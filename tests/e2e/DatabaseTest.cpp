// The registry database through the real daemon: installs and uninstalls
// that the application registry notices on disk are logged, and an
// uninstalled plug-in is taken off the job manager's table.
#include "platform/formats/Vlist.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace tv {
namespace {

using test::TestDaemon;

class DatabaseTest : public ::testing::Test {
protected:
    DatabaseTest() : daemon_({"application_roots = " + apps_.path()}) {}

    void writeInfo(const std::string& dir, Value info)
    {
        std::filesystem::create_directories(dir);
        ASSERT_FALSE(platform::writeVlistFileAtomically(dir + "/Info.vlist", info));
    }
    // An application with one plug-in of `identifier`; returns the plug-in's path.
    std::string makeApplication(const std::string& name, const std::string& identifier)
    {
        std::string app = apps_.file(name + ".app");
        writeInfo(app, Value{{"KbBundleIdentifier", "com.example." + name}});
        std::string plugIn = app + "/PlugIns/" + name + ".vext";
        writeInfo(plugIn, Value{{"KbBundleIdentifier", identifier},
                                {"KbBundleVersion", "7"},
                                {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.veltra.share-services"},
                                                      {"KoExtensionAttributes", Value(Dictionary{})}}}});
        return std::filesystem::canonical(plugIn).string();
    }

    test::TempDir apps_;
    TestDaemon daemon_;
};

TEST_F(DatabaseTest, InstallsAndUninstallsOnDiskAreLoggedAndUninstallsReachTheJobManager)
{
    std::string before = makeApplication("Clip", "com.example.clip");
    ASSERT_TRUE(daemon_.start()) << daemon_.log();

    // An install after start.
    std::string added = makeApplication("Note", "com.example.note");
    EXPECT_TRUE(daemon_.waitForLog("plug-in INSTALLED:com.example.note com.example.note(7) ")) << daemon_.log();
    EXPECT_TRUE(daemon_.waitForLog(" " + added + "\n"));

    // An uninstall: logged with the record's facts, then the job manager is
    // asked to terminate it, and its one answer is logged.
    std::filesystem::remove_all(std::filesystem::path(before).parent_path().parent_path());
    ASSERT_TRUE(daemon_.waitForLog("plug-in UNINSTALLED:com.example.clip com.example.clip(7) ")) << daemon_.log();
    std::string log = daemon_.log();
    auto at = log.find("plug-in UNINSTALLED:com.example.clip com.example.clip(7) ");
    std::string uuid = log.substr(log.find(')', at) + 2, 36);
    EXPECT_NE(log.find("plug-in UNINSTALLED:com.example.clip com.example.clip(7) " + uuid + " " + before),
              std::string::npos)
        << log;
    EXPECT_TRUE(daemon_.waitForLog("requesting jobd termination of plug-in: com.example.clip(7) " + uuid));
    EXPECT_TRUE(daemon_.waitForLog("jobd reported no plug-ins on record"));
    EXPECT_TRUE(daemon_.running());
}

} // namespace
} // namespace tv
