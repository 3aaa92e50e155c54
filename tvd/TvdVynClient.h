// TvdVynClient: one connected host process.
//
// The server's listener makes one per connection. It turns each request
// message into a Transaction served on the "service" queue, and the death of
// the connection into the release of the client's holds; it also answers who
// the client is: process id, executable path and bundle, entitlements.
//
// Ownership: the connection owns its client (as its context, and through its
// event handler); the client refers to the connection weakly; a queued
// request holds its client until it has run.
//
// Threads: connection events arrive on "vyn"; the client is identified
// (path, bundle, code-signing task) on "identify" while its requests wait in
// the server's request scheduler, which releases them once that is done, so
// handlers always see an identified client; requestCount is only changed on
// "service"; acceptWork is the one signal between "vyn" and "service".
#pragma once

#include "base/Value.h"
#include "platform/ipc/VynEvent.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tv {

namespace platform {
class VynConnection;
class CodeSigningTask;
} // namespace platform

class TvBundle;
class TvdServer;

class TvdVynClient : public std::enable_shared_from_this<TvdVynClient> {
public:
    // Makes the client for `connection`, installs it as the connection's
    // context and event handler, and resumes the connection. Never null.
    static std::shared_ptr<TvdVynClient> initWithConnectionServer(
        const std::shared_ptr<platform::VynConnection>& connection, std::shared_ptr<TvdServer> server);

    // The peer's process id, as the kernel reported it when it connected. It
    // stays readable after the connection is gone, so late log lines still
    // name the process.
    int pid() const { return pid_; }
    // The peer's user id, from the same report.
    uid_t uid() const { return uid_; }

    // The entitlement's value from the client's code signature, or null.
    Value entitlementValueForKey(std::string_view key) const;
    // True when the entitlement is present and not equal to false (a number
    // equal to 0 counts as false).
    bool hasEntitlement(std::string_view key) const;

    // The two reactions to connection errors.
    void dying();
    void dead();

    std::string description() const;

    bool acceptWork() const { return acceptWork_.load(); }
    void setAcceptWork(bool b) { acceptWork_.store(b); }
    std::uint32_t requestCount() const { return requestCount_; }
    void setRequestCount(std::uint32_t n) { requestCount_ = n; }
    std::shared_ptr<platform::VynConnection> connection() const { return connection_.lock(); }
    const std::shared_ptr<TvdServer>& server() const { return server_; }
    // The executable path of the client process; empty when it could not be
    // read. Read it from request handlers (which run after identification).
    const std::string& path() const { return path_; }
    const std::shared_ptr<TvBundle>& bundle() const { return bundle_; }

    ~TvdVynClient();

private:
    TvdVynClient() = default;
    void handleEvent(const platform::VynEvent& event);
    void handleRequest(const platform::Message& message);
    // Reads the executable path, the bundle and the code-signing task.
    void identify(const platform::VynConnection& connection);

    std::atomic<bool> acceptWork_{true};
    std::atomic<bool> identified_{false};
    std::uint32_t requestCount_ = 0;
    std::weak_ptr<platform::VynConnection> connection_;
    std::shared_ptr<TvdServer> server_;
    std::string path_;
    std::shared_ptr<TvBundle> bundle_;
    std::shared_ptr<platform::CodeSigningTask> task_;
    int pid_ = -1;
    uid_t uid_ = static_cast<uid_t>(-1);
};

} // namespace tv
