#include "tests/support/DaemonConnection.h"

#include "platform/PlatformConfig.h"
#include "platform/formats/Vlist.h"
#include "platform/notify/LinuxNotificationService.h"
#include "tvd/TvDatabase.h"

#include <filesystem>
#include <future>
#include <gtest/gtest.h>

namespace tv::test {

DaemonConnection::DaemonConnection(const TestDaemon& daemon)
    : vyn_(platform::LinuxVynService::create(*platform::PlatformConfig::loadFile(daemon.configPath()))),
      client_(std::make_unique<TvDaemonClient>(vyn_, daemon.socketPath().c_str()))
{
}

platform::VynEvent DaemonConnection::ask(const std::function<void(TvDaemonClient::Reply)>& send)
{
    auto answered = std::make_shared<std::promise<platform::VynEvent>>();
    auto f = answered->get_future();
    send([answered](const platform::VynEvent& a) { answered->set_value(a); });
    if (f.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "no answer within a minute";
        return platform::VynError{platform::VynError::Kind::Other, "no answer"};
    }
    return f.get();
}

platform::Message DaemonConnection::send(const platform::Message& request)
{
    platform::VynEvent answer = ask([&](auto reply) { client_->sendReply(request, reply); });
    const platform::Message* reply = platform::eventMessage(answer);
    EXPECT_NE(reply, nullptr) << platform::eventDescription(answer);
    return reply ? *reply : platform::Message();
}

std::uint64_t annotationChanges(const TestDaemon& daemon)
{
    return platform::LinuxNotificationService(daemon.root() + "/run/tvd").state(kAnnotationChangeNotification);
}

Value storedAnnotation(const std::string& file, const std::string& identifier)
{
    if (!std::filesystem::exists(file))
        return Value();
    auto root = platform::readVlistFile(file);
    EXPECT_TRUE(root.ok()) << "the annotation file must always load: " << root.error().localizedDescription();
    return root.ok() ? (*root)["data"][identifier] : Value();
}

} // namespace tv::test
