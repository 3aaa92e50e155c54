#include "Tarvik/TvDaemonClient.h"

#include "Tarvik/TvLog.h"
#include "Tarvik/TvMessageConversion.h"
#include "base/InternalInconsistency.h"

namespace tv {

using platform::Message;
using platform::VynEvent;

TvDaemonClient::TvDaemonClient(std::shared_ptr<platform::VynService> vyn, const char* serviceName)
    : replyQueue_(SerialQueue::create("tvd_client"))
{
    tvd_ = vyn->connect(serviceName ? serviceName : kDefaultServiceName, replyQueue_);
    // The connection's end that this client causes itself (on destruction)
    // is not a communications error.
    tvd_->setEventHandler([closing = closing_](const VynEvent& event) {
        if (!closing->load())
            TvLog::ops().error("Communications error: %{public}@", platform::eventDescription(event));
    });
    protocolVersion_ = kCurrentProtocolVersion;
    tvd_->resume();
}

TvDaemonClient::~TvDaemonClient()
{
    closing_->store(true);
    tvd_->cancel();
}

Message TvDaemonClient::request(const std::string& type) const
{
    Message m;
    m.set("request", Value(type));
    m.set("version", Value(static_cast<std::uint64_t>(protocolVersion_)));
    return m;
}

Message TvDaemonClient::requestPaths(const std::string& type, const std::vector<std::string>& paths) const
{
    Message m = request(type);
    Array list;
    list.reserve(paths.size());
    for (const auto& p : paths)
        list.emplace_back(p);
    m.set("paths", Value(std::move(list)));
    return m;
}

void TvDaemonClient::setUuids(Message& request, const std::vector<Uuid>& uuids)
{
    Array list(uuids.begin(), uuids.end());
    request.set("uuids", Value(std::move(list)));
}

namespace {

// The text forms are made only when the line is kept: they cost more than
// the rest of the request's way through the library.
void traceRequest(const Message& request)
{
    const TvLog& traffic = TvLog::traffic();
    if (traffic.enabled(LogLevel::Debug))
        traffic.debug("request: %@", request.description());
}

void traceReply(const VynEvent& answer)
{
    const TvLog& traffic = TvLog::traffic();
    if (traffic.enabled(LogLevel::Debug))
        traffic.debug("reply: %@", platform::eventDescription(answer));
}

} // namespace

void TvDaemonClient::sendReply(Message request, Reply reply)
{
    traceRequest(request);
    request.setExpectsReply(true);
    tvd_->sendWithReply(std::move(request), replyQueue_, [reply = std::move(reply)](const VynEvent& answer) {
        traceReply(answer);
        try {
            reply(answer);
        } catch (const TvInternalInconsistency& e) {
            TvLog::ops().error("internal inconsistency in reply handler: %{public}s", e.what());
        }
    });
}

platform::VynEvent TvDaemonClient::sendAndWait(Message request)
{
    traceRequest(request);
    request.setExpectsReply(true);
    VynEvent answer = tvd_->sendWithReplySync(std::move(request));
    traceReply(answer);
    return answer;
}

std::optional<TvError> TvDaemonClient::errorInReply(const VynEvent& answer)
{
    if (auto err = platform::eventError(answer))
        return makeError(4, err->description);
    const Message& reply = *platform::eventMessage(answer);
    std::uint64_t code = reply.uint64ForKey("errorcode");
    const std::string* text = reply.stringForKey("error");
    if (code == 0 && !text)
        return std::nullopt;
    if (code == 0)
        raiseInternalInconsistency(formatString("tvd reported error without a code: %s", *text));
    if (!text)
        return makeError(static_cast<std::int64_t>(code), "unknown error returned by Tarvik subsystem");
    return makeError(static_cast<std::int64_t>(code), *text);
}

Value TvDaemonClient::convertFromVYN(const Value& encoded) const
{
    if (protocolVersion_ != 3)
        return Value();
    return messageDecode(encoded);
}

Value TvDaemonClient::convertToVYNVersion(const Value& value, std::int64_t version)
{
    if (version != 3)
        return Value();
    return messageEncode(value);
}

Message TvDaemonClient::addPlugInsRequest(const std::vector<std::string>& paths) const
{
    return requestPaths("add", paths);
}

Message TvDaemonClient::removePlugInsRequest(const std::vector<std::string>& paths) const
{
    return requestPaths("remove", paths);
}

Message TvDaemonClient::bulkPluginsRequest(std::uint64_t flags) const
{
    Message m = request("bulk");
    m.set("flags", Value(flags));
    return m;
}

Message TvDaemonClient::readyPlugInsRequest(const std::vector<Uuid>& uuids, std::uint64_t flags) const
{
    Message m = request("ready");
    m.set("flags", Value(flags));
    setUuids(m, uuids);
    return m;
}

Message TvDaemonClient::accessPlugInsRequest(const std::vector<Uuid>& uuids, std::uint64_t flags) const
{
    Message m = request("access");
    m.set("flags", Value(flags));
    setUuids(m, uuids);
    return m;
}

Message TvDaemonClient::matchPlugInsRequest(const Value& rules, std::uint64_t flags) const
{
    Message m = request("match");
    m.set("rules", plainValueForVyn(rules));
    m.set("flags", Value(flags));
    return m;
}

Message TvDaemonClient::setPluginAnnotationsRequest(const std::vector<Uuid>& uuids, const Value& annotations) const
{
    Message m = request("annotate");
    setUuids(m, uuids);
    m.set("annotations", plainValueForVyn(annotations));
    return m;
}

Message TvDaemonClient::bulkSetPluginAnnotationsRequest(const Value& annotations) const
{
    Message m = request("bulk-annotate");
    m.set("annotations", plainValueForVyn(annotations));
    return m;
}

Message TvDaemonClient::holdPluginsRequest(const std::vector<std::string>& paths, std::uint64_t flags) const
{
    Message m = requestPaths("lock", paths);
    m.set("flags", Value(flags));
    return m;
}

Message TvDaemonClient::releaseHoldRequest(const Uuid& token) const
{
    Message m = request("lock");
    setUuids(m, {token});
    return m;
}

void TvDaemonClient::addPlugInsReply(const std::vector<std::string>& paths, Reply reply)
{
    sendReply(addPlugInsRequest(paths), std::move(reply));
}

void TvDaemonClient::removePlugInsReply(const std::vector<std::string>& paths, Reply reply)
{
    sendReply(removePlugInsRequest(paths), std::move(reply));
}

void TvDaemonClient::bulkPluginsReply(std::uint64_t flags, Reply reply)
{
    sendReply(bulkPluginsRequest(flags), std::move(reply));
}

void TvDaemonClient::readyPlugInsFlagsReply(const std::vector<Uuid>& uuids, std::uint64_t flags, Reply reply)
{
    sendReply(readyPlugInsRequest(uuids, flags), std::move(reply));
}

void TvDaemonClient::accessPlugInsFlagsReply(const std::vector<Uuid>& uuids, std::uint64_t flags, Reply reply)
{
    sendReply(accessPlugInsRequest(uuids, flags), std::move(reply));
}

void TvDaemonClient::matchPlugInsFlagsReply(const Value& rules, std::uint64_t flags, Reply reply)
{
    sendReply(matchPlugInsRequest(rules, flags), std::move(reply));
}

void TvDaemonClient::setPluginAnnotationsAnnotationsReply(const std::vector<Uuid>& uuids, const Value& annotations,
                                                          Reply reply)
{
    sendReply(setPluginAnnotationsRequest(uuids, annotations), std::move(reply));
}

void TvDaemonClient::bulkSetPluginAnnotationsReply(const Value& annotations, Reply reply)
{
    sendReply(bulkSetPluginAnnotationsRequest(annotations), std::move(reply));
}

void TvDaemonClient::holdPluginsFlagsReply(const std::vector<std::string>& paths, std::uint64_t flags, Reply reply)
{
    sendReply(holdPluginsRequest(paths, flags), std::move(reply));
}

void TvDaemonClient::releaseHoldReply(const Uuid& token, Reply reply)
{
    sendReply(releaseHoldRequest(token), std::move(reply));
}

} // namespace tv
