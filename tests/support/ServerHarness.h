// ServerHarness: a TvdServer over fakes with manual queues, for unit tests of
// the daemon's request path. connect() makes a client as the listener would;
// send() delivers a request on it (its replies are the connection's sent());
// drain() runs every queue of the server until all are idle.
#pragma once

#include "tests/support/FakeApplicationRegistry.h"
#include "tests/support/FakeClientIdentity.h"
#include "tests/support/FakeVynService.h"
#include "platform/jobs/JobManager.h"
#include "platform/notify/LinuxNotificationService.h"
#include "tests/support/TestDaemon.h"
#include "tvd/TvdServer.h"

#include <map>
#include <memory>
#include <string>

namespace tv::test {

class ServerHarness {
public:
    ServerHarness();

    std::shared_ptr<FakeVynConnection> connect(pid_t pid, std::string executable = "/usr/bin/host",
                                               uid_t uid = static_cast<uid_t>(-1));
    // A request expecting a reply; returns its message id.
    std::uint64_t send(FakeVynConnection& connection, Value body, bool expectsReply = true);
    void drain();

    std::shared_ptr<FakeVynService> vyn = std::make_shared<FakeVynService>();
    std::shared_ptr<FakeProcessInfo> processInfo = std::make_shared<FakeProcessInfo>();
    std::shared_ptr<FakeCodeSigningService> codeSigning = std::make_shared<FakeCodeSigningService>();
    std::shared_ptr<FakeApplicationRegistry> registry = std::make_shared<FakeApplicationRegistry>();
    std::map<std::string, std::shared_ptr<SerialQueue>> queues;
    // The job manager: answers registrations with `addResult`, records the
    // removals asked for (bundle identifier, version) and answers them with
    // `results` in order (3 once they run out).
    struct FakeJobManager final : platform::JobManager {
        int addResult = 0;
        std::vector<std::pair<std::string, std::string>> removals;
        std::vector<int> results;
        int addExternalService(platform::ExternalService) override { return addResult; }
        void removeExternalService(const std::string& identifier, const std::string& version,
                                   std::shared_ptr<SerialQueue> queue, Completion completion) override
        {
            int result = removals.size() < results.size() ? results[removals.size()] : 3;
            removals.emplace_back(identifier, version);
            queue->async([completion, result] { completion(result); });
        }
        std::vector<platform::ExternalService> externalServices() const override { return {}; }
    };
    std::shared_ptr<FakeJobManager> jobManager = std::make_shared<FakeJobManager>();
    // Notifications, posted in a private runtime directory.
    TempDir runtime;
    std::shared_ptr<platform::NotificationService> notifications =
        std::make_shared<platform::LinuxNotificationService>(runtime.path());
    std::shared_ptr<TvdServer> server;

private:
    std::uint64_t nextId_ = 100;
};

} // namespace tv::test
