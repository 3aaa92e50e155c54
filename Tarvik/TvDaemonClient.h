// TvDaemonClient: the host side of the daemon's protocol.
//
// One client holds one connection to the daemon's named service. Each call
// builds one request message ("request" and "version" always, plus the
// call's fields) and sends it with a reply expected; the completion runs on
// the client's serial "tvd_client" queue with the raw answer: the reply
// message, or a VynError when the connection broke or the daemon cannot be
// reached. errorInReply() turns an answer into an error value.
//
// A caller that waits for the answer sends with sendAndWait() instead: it
// reads the reply from the connection itself when no other thread is
// reading it, else the IPC thread hands the reply straight to it (one
// thread hand-off instead of two); no completion runs.
//
// Thread-safety: calls may come from any thread (sendAndWait() also from a
// completion); all completions and connection events of one client run on
// its queue, in delivery order.
#pragma once

#include "base/SerialQueue.h"
#include "base/TvError.h"
#include "base/Value.h"
#include "platform/ipc/Message.h"
#include "platform/ipc/VynEvent.h"
#include "platform/ipc/VynService.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tv {

class TvDaemonClient {
public:
    using Reply = std::function<void(const platform::VynEvent& answer)>;

    static constexpr const char* kDefaultServiceName = "com.veltra.tarvik.tvd";

    // Connects to `serviceName` (null: the default name) through `vyn`.
    // Never fails: an unreachable daemon shows up as error answers.
    TvDaemonClient(std::shared_ptr<platform::VynService> vyn, const char* serviceName = nullptr);
    ~TvDaemonClient();
    TvDaemonClient(const TvDaemonClient&) = delete;
    TvDaemonClient& operator=(const TvDaemonClient&) = delete;

    const std::shared_ptr<platform::VynConnection>& tvd() const { return tvd_; }
    const std::shared_ptr<SerialQueue>& replyQueue() const { return replyQueue_; }
    std::int64_t protocolVersion() const { return protocolVersion_; }
    void setProtocolVersion(std::int64_t v) { protocolVersion_ = v; }

    platform::Message request(const std::string& type) const;
    platform::Message requestPaths(const std::string& type, const std::vector<std::string>& paths) const;
    static void setUuids(platform::Message& request, const std::vector<Uuid>& uuids);
    void sendReply(platform::Message request, Reply reply);
    // Sends `request` and returns its answer (the reply, or a VynError).
    platform::VynEvent sendAndWait(platform::Message request);

    // The answer's error: code 4 with the transport's text for a connection
    // error; null for success. A reply with an "error" text but no code
    // breaks the protocol and is raised as an internal-consistency failure.
    static std::optional<TvError> errorInReply(const platform::VynEvent& answer);

    // The decoded value of a message-encoded field, or null unless this client
    // speaks protocol version 3.
    Value convertFromVYN(const Value& encoded) const;
    // The message encoding of `value` for protocol `version` 3, else null.
    static Value convertToVYNVersion(const Value& value, std::int64_t version);

    // The requests of the calls below, for sendAndWait().
    platform::Message addPlugInsRequest(const std::vector<std::string>& paths) const;
    platform::Message removePlugInsRequest(const std::vector<std::string>& paths) const;
    platform::Message bulkPluginsRequest(std::uint64_t flags) const;
    platform::Message readyPlugInsRequest(const std::vector<Uuid>& uuids, std::uint64_t flags) const;
    platform::Message accessPlugInsRequest(const std::vector<Uuid>& uuids, std::uint64_t flags) const;
    platform::Message matchPlugInsRequest(const Value& rules, std::uint64_t flags) const;
    platform::Message setPluginAnnotationsRequest(const std::vector<Uuid>& uuids, const Value& annotations) const;
    platform::Message bulkSetPluginAnnotationsRequest(const Value& annotations) const;
    platform::Message holdPluginsRequest(const std::vector<std::string>& paths, std::uint64_t flags) const;
    platform::Message releaseHoldRequest(const Uuid& token) const;

    void addPlugInsReply(const std::vector<std::string>& paths, Reply reply);
    void removePlugInsReply(const std::vector<std::string>& paths, Reply reply);
    void bulkPluginsReply(std::uint64_t flags, Reply reply);
    void readyPlugInsFlagsReply(const std::vector<Uuid>& uuids, std::uint64_t flags, Reply reply);
    void accessPlugInsFlagsReply(const std::vector<Uuid>& uuids, std::uint64_t flags, Reply reply);
    void matchPlugInsFlagsReply(const Value& rules, std::uint64_t flags, Reply reply);
    void setPluginAnnotationsAnnotationsReply(const std::vector<Uuid>& uuids, const Value& annotations, Reply reply);
    void bulkSetPluginAnnotationsReply(const Value& annotations, Reply reply);
    void holdPluginsFlagsReply(const std::vector<std::string>& paths, std::uint64_t flags, Reply reply);
    void releaseHoldReply(const Uuid& token, Reply reply);

private:
    std::shared_ptr<SerialQueue> replyQueue_;
    std::shared_ptr<platform::VynConnection> tvd_;
    std::int64_t protocolVersion_ = 3;
    std::shared_ptr<std::atomic<bool>> closing_ = std::make_shared<std::atomic<bool>>(false);
};

} // namespace tv
