#include "platform/process/LinuxBundleService.h"

#include "tests/support/FakeVlistFiles.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

using test::FakeVlistFiles;

Value info(std::string identifier, std::string executable)
{
    return Value{{"KbBundleIdentifier", Value(std::move(identifier))},
                 {"KbBundleExecutable", Value(std::move(executable))}};
}

std::optional<std::string> bundlePathOf(LinuxBundleService& service, const std::shared_ptr<BundleHandle>& handle)
{
    return handle ? service.bundlePath(*handle) : std::nullopt;
}

TEST(LinuxBundleServiceTest, OpensOnlyDirectoriesWithAnInformationFileWhoseExecutableStaysInside)
{
    FakeVlistFiles files;
    const std::string app = files.makeDirectory("Example.app");
    files.writeValue("Example.app/Info.vlist", info("com.example.app", "example"));
    files.makeDirectory("Plain");
    files.writeText("loose", "#!/bin/sh\n", 0755);
    LinuxBundleService service(FakeVlistFiles::reader());

    EXPECT_EQ(bundlePathOf(service, service.openBundleDirectory(app)), app);
    // Spelled with a trailing separator and a "." component: the same bundle.
    EXPECT_EQ(bundlePathOf(service, service.openBundleDirectory(files.path("./Example.app/"))), app);
    for (const std::string& none : {files.path("Plain"), files.path("loose"), files.path("missing"), std::string()})
        EXPECT_EQ(service.openBundleDirectory(none), nullptr) << none;

    // The support directory is the bundle itself; the executable is resolved
    // against it.
    auto handle = service.openBundleDirectory(app);
    EXPECT_EQ(service.supportDirectory(*handle), app);
    EXPECT_EQ(service.executablePath(*handle), app + "/example");
    EXPECT_EQ(service.bundleIdentifier(*handle), "com.example.app");

    // A declared executable must stay inside its bundle: neither bundle gets
    // to claim a file outside itself.
    files.writeText("victim", "x", 0755);
    files.writeValue("Escape.app/Info.vlist", info("com.example.escape", "../victim"));
    files.writeValue("Absolute.app/Info.vlist", info("com.example.absolute", files.path("victim")));
    files.writeValue("Number.app/Info.vlist", Value{{"KbBundleExecutable", Value(7)}});
    for (const char* name : {"Escape.app", "Absolute.app", "Number.app"}) {
        auto other = service.openBundleDirectory(files.path(name));
        ASSERT_NE(other, nullptr) << name;
        EXPECT_EQ(service.executablePath(*other), std::nullopt) << name;
    }
    EXPECT_EQ(service.openBundleWithExecutable(files.path("victim")), nullptr);
}

TEST(LinuxBundleServiceTest, ExecutableBelongsToTheNearestBundleThatNamesIt)
{
    FakeVlistFiles files;
    const std::string app = files.makeDirectory("Example.app");
    files.writeValue("Example.app/Info.vlist", info("com.example.app", "bin/example"));
    files.writeText("Example.app/bin/example", "x", 0755);
    files.writeText("Example.app/helper", "x", 0755);
    const std::string share = files.makeDirectory("Example.app/PlugIns/Share.vext");
    files.writeValue("Example.app/PlugIns/Share.vext/Info.vlist", info("com.example.share", "share"));
    files.writeText("Example.app/PlugIns/Share.vext/share", "x", 0755);
    // A plug-in that names another file: its executable "other" is claimed
    // by no one, and the application above does not claim it either.
    files.writeValue("Example.app/PlugIns/Other.vext/Info.vlist", info("com.example.other", "main"));
    files.writeText("Example.app/PlugIns/Other.vext/other", "x", 0755);
    LinuxBundleService service(FakeVlistFiles::reader());

    EXPECT_EQ(bundlePathOf(service, service.openBundleWithExecutable(app + "/bin/example")), app);
    EXPECT_EQ(bundlePathOf(service, service.openBundleWithExecutable(share + "/share")), share);
    for (const std::string& none : {app + "/helper", files.path("Example.app/PlugIns/Other.vext/other"), files.path("nowhere/tool")})
        EXPECT_EQ(service.openBundleWithExecutable(none), nullptr) << none;

    // Reached through a symbolic link, the executable still finds its bundle.
    fs::create_symlink(app + "/bin/example", files.path("example-link"));
    EXPECT_EQ(bundlePathOf(service, service.openBundleWithExecutable(files.path("example-link"))), app);
}

TEST(LinuxBundleServiceTest, TheWalkUpFromAnExecutableIsBounded)
{
    // Every new client costs one walk, so a hostile layout must not make it
    // expensive: an oversized Info.vlist is skipped unread, and at most 8
    // are read however deep the executable sits.
    FakeVlistFiles files;
    const std::string big = files.makeDirectory("Big.app");
    std::string padding((std::size_t{1} << 20) + 1, ' ');
    files.writeText("Big.app/Info.vlist", padding, 0644);
    files.writeText("Big.app/big", "x", 0755);
    std::string deep = "Deep";
    for (int i = 0; i < 12; ++i) {
        files.makeDirectory(deep);
        files.writeValue(deep + "/Info.vlist", info("com.example.level" + std::to_string(i), "other"));
        deep += "/d";
    }
    files.makeDirectory(deep);
    files.writeText(deep + "/tool", "x", 0755);

    std::vector<std::string> read;
    auto reader = FakeVlistFiles::reader();
    LinuxBundleService service([&](const std::string& path) {
        read.push_back(path);
        return reader(path);
    });
    EXPECT_EQ(service.openBundleWithExecutable(big + "/big"), nullptr);
    EXPECT_TRUE(read.empty());
    EXPECT_EQ(service.openBundleWithExecutable(files.path(deep + "/tool")), nullptr);
    EXPECT_EQ(read.size(), 8u);
}

} // namespace
} // namespace tv::platform
