// DaemonConnection: the client library connected to a TestDaemon's socket,
// for end-to-end tests that wait for each answer.
#pragma once

#include "Tarvik/TvDaemonClient.h"
#include "platform/ipc/LinuxVynService.h"
#include "tests/support/TestDaemon.h"

#include <functional>
#include <memory>

namespace tv::test {

class DaemonConnection {
public:
    explicit DaemonConnection(const TestDaemon& daemon);

    TvDaemonClient& client() { return *client_; }
    // The answer to what `send` sends, waited for up to a minute.
    platform::VynEvent ask(const std::function<void(TvDaemonClient::Reply)>& send);
    // The reply to `request`; an empty message when the answer is an error.
    platform::Message send(const platform::Message& request);

private:
    std::shared_ptr<platform::LinuxVynService> vyn_;
    std::unique_ptr<TvDaemonClient> client_;
};

// How often `daemon` has posted the annotation-change notification.
std::uint64_t annotationChanges(const TestDaemon& daemon);
// The annotation the daemon's annotation file `file` holds for `identifier`
// (null: none, or no file yet). A file that does not load fails the test.
Value storedAnnotation(const std::string& file, const std::string& identifier);

} // namespace tv::test
