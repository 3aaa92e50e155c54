#include "platform/sdk/LinuxExtensionSdkRegistry.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <vector>

namespace tv::platform {
namespace {

namespace fs = std::filesystem;

class LinuxExtensionSdkRegistryTest : public ::testing::Test {
protected:
    void write(const std::string& name, const std::string& body)
    {
        std::ofstream(dir_ / name) << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vlist version=\"1.0\">" << body
                                   << "</vlist>\n";
    }

    test::TempDir tmp_;
    fs::path dir_ = tmp_.path();
};

TEST_F(LinuxExtensionSdkRegistryTest, ReadsOneVlistPerExtensionPointAfreshAndRefusesIdentifiersOutside)
{
    LinuxExtensionSdkRegistry registry(dir_.string());
    write("com.example.point.vlist",
          "<dict><key>KoExtension</key><dict><key>CleanTimeout</key><integer>30</integer></dict></dict>");

    std::optional<Value> sdk = registry.lookUp("com.example.point");
    ASSERT_TRUE(sdk);
    EXPECT_EQ((*sdk)["KoExtension"]["CleanTimeout"].integerValue(), 30);
    EXPECT_FALSE(registry.lookUp("com.example.other"));

    // A changed file is seen at once: nothing is cached.
    write("com.example.point.vlist", "<dict><key>New</key><true/></dict>");
    sdk = registry.lookUp("com.example.point");
    ASSERT_TRUE(sdk);
    EXPECT_EQ((*sdk)["New"], Value(true));
    EXPECT_TRUE((*sdk)["KoExtension"].isNull());

    // Identifiers outside the directory and unusable files are refused.
    write("outside.vlist", "<dict/>");
    fs::create_directories(dir_ / "sub");
    const std::vector<std::string> unusable{"", ".", "..", "../outside", "sub/../outside", std::string("a\0b", 3)};
    for (const std::string& id : unusable) {
        EXPECT_EQ(registry.pathForIdentifier(id), "") << id;
        EXPECT_FALSE(registry.lookUp(id)) << id;
    }
    EXPECT_EQ(registry.pathForIdentifier("com.example.point"), (dir_ / "com.example.point.vlist").string());

    test::LogCapture log;
    write("array.vlist", "<array><string>x</string></array>");
    write("broken.vlist", "<dict><key>unclosed</key>");
    fs::create_directories(dir_ / "directory.vlist");
    for (const char* id : {"array", "broken", "directory"})
        EXPECT_FALSE(registry.lookUp(id)) << id;
    EXPECT_EQ(log.countContaining("SDK file"), 3u);
    for (const auto& line : log.lines())
        EXPECT_EQ(line.level, LogLevel::Error);
}

} // namespace
} // namespace tv::platform
