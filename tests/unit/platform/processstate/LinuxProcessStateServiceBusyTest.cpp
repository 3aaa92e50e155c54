// Busy plug-in instances read from procfs, with real child processes whose
// executables lie in plug-in bundles.
#include "platform/processstate/LinuxProcessStateService.h"

#include "platform/process/LinuxBundleService.h"
#include "tests/support/PlugInBundles.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace tv::platform {
namespace {

// Runs `executable` (a copy of sleep); returns once the process runs it.
pid_t spawn(const std::string& executable)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execl(executable.c_str(), executable.c_str(), "60", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::error_code ec;
    test::eventually([&] { return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec) == executable; });
    return pid;
}

TEST(LinuxProcessStateServiceBusyTest, AProcessRunningAnExecutableInsideTheBundleMakesItBusy)
{
    test::TempDir dir;
    std::string tool = std::filesystem::canonical(dir.path()).string() + "/Host.app/PlugIns/Tool.vext";
    std::string helper = tool + "/Helper.vext"; // a bundle inside the plug-in runs its code too
    test::makePlugInBundle(tool, "com.example.tool", "/bin/sleep");
    test::makePlugInBundle(helper, "com.example.helper", "/bin/sleep");
    LinuxProcessStateService keepd(std::make_shared<LinuxBundleService>());

    pid_t first = spawn(tool + "/plugin"), second = spawn(helper + "/plugin");
    auto busy = keepd.busyExtensionInstances({"com.example.tool", "com.example.other"});
    ASSERT_TRUE(busy.ok()) << busy.error().localizedDescription();
    ASSERT_EQ(busy->size(), 2u);
    EXPECT_EQ((*busy)[0], (Value{{"BundleIdentifier", "com.example.tool"},
                                 {"ProcessIdentifier", Value(std::int64_t{std::min(first, second)})},
                                 {"Executable", (first < second ? tool : helper) + "/plugin"}}));
    EXPECT_TRUE(keepd.busyExtensionInstances({"com.example.other"})->empty());

    // An executable deleted while it runs still counts; an ended process does not.
    std::filesystem::remove(tool + "/plugin");
    for (pid_t pid : {second, first}) {
        busy = keepd.busyExtensionInstances({"com.example.tool"});
        ASSERT_EQ(busy->size(), pid == second ? 2u : 1u);
        EXPECT_EQ((*busy)[0]["ProcessIdentifier"], Value(std::int64_t{pid == second ? std::min(first, second) : pid}));
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    EXPECT_TRUE(keepd.busyExtensionInstances({"com.example.tool"})->empty());
    EXPECT_FALSE(LinuxProcessStateService(std::make_shared<LinuxBundleService>(), dir.path() + "/none")
                     .busyExtensionInstances({"com.example.tool"})
                     .ok());
}

} // namespace
} // namespace tv::platform
