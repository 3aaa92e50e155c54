// TvdPlugInHold: a client's hold on a set of plug-ins. While a hold that
// blocks a plug-in is in the server's hold table, "match" leaves the plug-in
// out of its answers (unless the request discovers everything), and "ready"
// is to refuse it for every host.
//
// The token is a fresh random UUID; two holds are equal when their tokens
// are. A plug-in is blocked when a plug-in with its UUID is in the set. The
// client is referred to weakly: the hold reads it as null once the client
// object is gone.
//
// Each live hold is one keep-alive transaction of the IPC service, begun when
// it is made and ended when it is destroyed, so that a daemon started on
// demand does not exit for idleness while a hold exists.
//
// Thread-safety: immutable after construction; safe to read from any thread.
#pragma once

#include "base/Date.h"
#include "base/Uuid.h"

#include <functional>
#include <memory>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace tv {

namespace platform {
class VynService;
}

class TvdPlugIn;
class TvdVynClient;

class TvdPlugInHold {
public:
    // A hold on `plugIns` placed by `client`, made now with a fresh token;
    // begins its keep-alive transaction on the IPC service of the client's
    // server (none when the client has no server). Never null.
    static std::shared_ptr<TvdPlugInHold> initWithPlugInsForClient(
        const std::vector<std::shared_ptr<TvdPlugIn>>& plugIns, const std::shared_ptr<TvdVynClient>& client);
    ~TvdPlugInHold();

    TvdPlugInHold(const TvdPlugInHold&) = delete;
    TvdPlugInHold& operator=(const TvdPlugInHold&) = delete;

    // True when a plug-in with the UUID of `plugIn` is in the set.
    bool blocks(const TvdPlugIn& plugIn) const;

    const Uuid& uuid() const { return uuid_; }
    // The blocked plug-ins, one per UUID, in the order they were given.
    std::vector<std::shared_ptr<TvdPlugIn>> blocked() const;
    std::shared_ptr<TvdVynClient> client() const { return client_.lock(); }
    // The uid of the client that placed it (-1 when there was none).
    uid_t uid() const { return uid_; }
    // True when `client` is the object that placed the hold (false once that
    // object is gone).
    bool placedBy(const std::shared_ptr<TvdVynClient>& client) const;
    const Date& created() const { return created_; }

    friend bool operator==(const TvdPlugInHold& a, const TvdPlugInHold& b) { return a.uuid_ == b.uuid_; }

private:
    TvdPlugInHold() = default;

    Uuid uuid_;
    std::vector<std::shared_ptr<TvdPlugIn>> order_;
    std::unordered_map<Uuid, std::shared_ptr<TvdPlugIn>> blocked_;
    std::weak_ptr<TvdVynClient> client_;
    uid_t uid_ = static_cast<uid_t>(-1);
    Date created_;
    std::shared_ptr<platform::VynService> keepAlive_; // the service whose transaction this hold holds open
};

} // namespace tv

template <>
struct std::hash<tv::TvdPlugInHold> {
    std::size_t operator()(const tv::TvdPlugInHold& hold) const noexcept { return std::hash<tv::Uuid>()(hold.uuid()); }
};
