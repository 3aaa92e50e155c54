// Busy plug-in instances read from procfs, with real child processes whose
// executables lie in plug-in bundles.
#include "platform/processstate/LinuxProcessStateService.h"

#include "platform/process/LinuxBundleService.h"
#include "tests/support/PlugInBundles.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tv::platform {
namespace {

// Runs `executable` (a copy of sleep) until killed; waits until the process
// runs it.
pid_t spawn(const std::string& executable)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execl(executable.c_str(), executable.c_str(), "60", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    for (int i = 0; i < 500; ++i) {
        std::error_code ec;
        if (std::filesystem::read_symlink(link, ec) == executable)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return pid;
}

TEST(LinuxProcessStateServiceBusyTest, AProcessRunningAnExecutableInsideTheBundleMakesItBusy)
{
    test::TempDir dir;
    std::string root = std::filesystem::canonical(dir.path()).string();
    std::string tool = root + "/Host.app/PlugIns/Tool.vext";
    test::makePlugInBundle(tool, "com.example.tool", "/bin/sleep");
    // A helper bundle inside the plug-in runs the plug-in's code too.
    std::string helper = tool + "/Helper.vext";
    test::makePlugInBundle(helper, "com.example.helper", "/bin/sleep");
    LinuxProcessStateService keepd(std::make_shared<LinuxBundleService>());

    pid_t first = spawn(tool + "/plugin");
    pid_t second = spawn(helper + "/plugin");
    auto busy = keepd.busyExtensionInstances({"com.example.tool", "com.example.other"});
    ASSERT_TRUE(busy.ok()) << busy.error().localizedDescription();
    ASSERT_EQ(busy->size(), 2u);
    EXPECT_EQ((*busy)[0], (Value{{"BundleIdentifier", "com.example.tool"},
                                 {"ProcessIdentifier", Value(std::int64_t{std::min(first, second)})},
                                 {"Executable", (first < second ? tool : helper) + "/plugin"}}));
    EXPECT_TRUE(keepd.busyExtensionInstances({"com.example.other"})->empty());
    EXPECT_TRUE(keepd.busyExtensionInstances({})->empty());

    // An executable deleted while it runs still makes the bundle busy; a
    // process that ended does not.
    std::filesystem::remove(tool + "/plugin");
    ::kill(second, SIGKILL);
    ::waitpid(second, nullptr, 0);
    busy = keepd.busyExtensionInstances({"com.example.tool"});
    ASSERT_EQ(busy->size(), 1u);
    EXPECT_EQ((*busy)[0]["ProcessIdentifier"], Value(std::int64_t{first}));
    ::kill(first, SIGKILL);
    ::waitpid(first, nullptr, 0);
    EXPECT_TRUE(keepd.busyExtensionInstances({"com.example.tool"})->empty());

    LinuxProcessStateService nowhere(std::make_shared<LinuxBundleService>(), root + "/no-proc");
    EXPECT_FALSE(nowhere.busyExtensionInstances({"com.example.tool"}).ok());
}

} // namespace
} // namespace tv::platform
