#include "platform/jobs/LinuxJobManager.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

namespace tv::platform {
namespace {

ExternalService service(pid_t pid, std::string id, std::string version, std::string exe = "/apps/P.vext/p",
                        uid_t uid = 500)
{
    return ExternalService{pid, uid, std::move(id), std::move(version), std::move(exe),
                           Value{{"_SandboxProfile", "x"}}};
}

// The id of a process that has exited and been reaped.
pid_t exitedPid()
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

TEST(LinuxJobManagerTest, AddRefusesMalformedRegistrationsWithErrno)
{
    LinuxJobManager jobs;
    ExternalService notDictionary = service(10, "com.example.p", "1");
    notDictionary.launchDescription = Value(Array{});
    const std::tuple<const char*, ExternalService, int> cases[] = {
        {"valid", service(10, "com.example.p", "1"), 0},
        {"pid zero", service(0, "com.example.p", "1"), EINVAL},
        {"negative pid", service(-4, "com.example.p", "1"), EINVAL},
        {"no identifier", service(10, "", "1"), EINVAL},
        {"relative executable", service(10, "com.example.p", "1", "p"), EINVAL},
        {"description not a dictionary", notDictionary, EINVAL},
    };
    for (const auto& [name, registration, expected] : cases)
        EXPECT_EQ(jobs.addExternalService(registration), expected) << name;
    EXPECT_EQ(jobs.externalServices().size(), 1u);
}

TEST(LinuxJobManagerTest, SameKeyReplacesAndTheTableIsBoundedByRunningHosts)
{
    const pid_t self = getpid(), parent = getppid();
    LinuxJobManager jobs(2);
    ASSERT_EQ(jobs.addExternalService(service(self, "com.example.p", "1", "/old")), 0);
    ASSERT_EQ(jobs.addExternalService(service(self, "com.example.p", "1", "/new")), 0);
    ASSERT_EQ(jobs.externalServices().size(), 1u);
    EXPECT_EQ(jobs.externalServices()[0].executablePath, "/new");
    ASSERT_EQ(jobs.addExternalService(service(parent, "com.example.p", "1")), 0);
    EXPECT_EQ(jobs.addExternalService(service(self, "com.example.q", "1")), ENOSPC);
    EXPECT_EQ(jobs.addExternalService(service(self, "com.example.p", "1")), 0) << "replacing needs no room";

    // The registrations of a host that has exited make room.
    LinuxJobManager full(2);
    const pid_t gone = exitedPid();
    ASSERT_EQ(full.addExternalService(service(gone, "com.example.p", "1")), 0);
    ASSERT_EQ(full.addExternalService(service(self, "com.example.p", "1")), 0);
    EXPECT_EQ(full.addExternalService(service(self, "com.example.q", "1")), 0);
    ASSERT_EQ(full.externalServices().size(), 2u);
    EXPECT_EQ(full.externalServices()[0].hostPid, self);
}

TEST(LinuxJobManagerTest, OneUsersHostsCannotTakeTheWholeTable)
{
    const pid_t self = getpid();
    LinuxJobManager jobs(8, 2);
    ASSERT_EQ(jobs.addExternalService(service(self, "com.example.a", "1", "/a", 500)), 0);
    ASSERT_EQ(jobs.addExternalService(service(self, "com.example.b", "1", "/b", 500)), 0);
    EXPECT_EQ(jobs.addExternalService(service(self, "com.example.c", "1", "/c", 500)), ENOSPC);
    EXPECT_EQ(jobs.addExternalService(service(self, "com.example.c", "1", "/c", 501)), 0);
}

TEST(LinuxJobManagerTest, RemoveTakesEveryHostOfThatVersionAndAnswersOnTheQueue)
{
    LinuxJobManager jobs;
    ASSERT_EQ(jobs.addExternalService(service(10, "com.example.p", "1")), 0);
    ASSERT_EQ(jobs.addExternalService(service(11, "com.example.p", "1")), 0);
    ASSERT_EQ(jobs.addExternalService(service(10, "com.example.p", "2")), 0);
    ASSERT_EQ(jobs.addExternalService(service(10, "com.example.q", "1")), 0);

    auto queue = SerialQueue::createManual("service");
    std::vector<int> results;
    jobs.removeExternalService("com.example.p", "1", queue, [&](int r) { results.push_back(r); });
    EXPECT_TRUE(results.empty()) << "the completion runs on the queue, not inline";
    jobs.removeExternalService("com.example.p", "1", queue, [&](int r) { results.push_back(r); });
    jobs.removeExternalService("com.example.missing", "1", queue, [&](int r) { results.push_back(r); });
    queue->runUntilIdle();
    EXPECT_EQ(results, (std::vector<int>{0, ESRCH, ESRCH}));

    auto left = jobs.externalServices();
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0].bundleVersion, "2");
    EXPECT_EQ(left[1].bundleIdentifier, "com.example.q");
}

} // namespace
} // namespace tv::platform
