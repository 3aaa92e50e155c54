#include "tests/support/ServerHarness.h"

#include "tests/support/FakeContainerService.h"

#include "Tarvik/TvBundle.h"
#include "platform/process/LinuxBundleService.h"

#include <stdexcept>

namespace tv::test {

ServerHarness::ServerHarness()
{
    if (!TvBundle::bundleService())
        TvBundle::setBundleService(std::make_shared<platform::LinuxBundleService>());
    TvdPlatform platform;
    platform.vyn = vyn;
    platform.processInfo = processInfo;
    platform.codeSigning = codeSigning;
    platform.applicationRegistry = registry;
    platform.makeQueue = [this](std::string label, SerialQueue::QoS) {
        auto q = SerialQueue::createManual(label);
        queues[label] = q;
        return q;
    };
    platform.jobManager = jobManager;
    platform.notifications = notifications;
    // No annotation file of the machine is read or written by tests.
    platform.globalAnnotationsFile = "/nonexistent/tvd-test/Tarvik-Annotations";
    auto containers = std::make_shared<FakeContainerService>();
    containers->path = "/nonexistent/tvd-test/container";
    platform.containers = containers;
    server = TvdServer::initForServiceDatabase("/tmp/test.sock", nullptr, platform);
    if (!server)
        throw std::runtime_error("server construction failed");
    // Every turn its own task, so that tests can step through them.
    server->requestScheduler()->setBatch(std::chrono::microseconds(0));
    server->run();
}

std::shared_ptr<FakeVynConnection> ServerHarness::connect(pid_t pid, std::string executable, uid_t uid)
{
    processInfo->paths[pid] = std::move(executable);
    platform::AuditToken token;
    token.pid = pid;
    token.uid = uid;
    auto connection = vyn->listener()->connect(token);
    drain();
    return connection;
}

std::uint64_t ServerHarness::send(FakeVynConnection& connection, Value body, bool expectsReply)
{
    platform::Message m(std::move(body));
    m.setMessageId(++nextId_);
    m.setExpectsReply(expectsReply);
    connection.deliver(std::move(m));
    return nextId_;
}

void ServerHarness::drain()
{
    for (;;) {
        std::size_t ran = 0;
        for (auto& [label, queue] : queues)
            ran += queue->runUntilIdle();
        if (ran == 0)
            return;
    }
}

} // namespace tv::test
