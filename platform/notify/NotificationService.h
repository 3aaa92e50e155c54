// NotificationService: named broadcast notifications without payload.
//
// Any process may post a name; every observer of that name, in any process of
// the same runtime directory, is then told at least once. Posts that follow
// each other closely may be coalesced into one callback: an observer learns
// "something changed since you were last told", never how many times.
//
// Thread-safety: every operation may be called from any thread. Callbacks run
// on the queue given to observe(), one at a time.
#pragma once

#include "base/Result.h"
#include "base/SerialQueue.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tv::platform {

// An observation in progress; destroying it stops it. After the destructor
// returns no new callback is scheduled (one already queued may still run).
class NotificationObservation {
public:
    virtual ~NotificationObservation() = default;
};

class NotificationService {
public:
    using Handler = std::function<void(std::uint64_t state)>;

    virtual ~NotificationService() = default;

    // Posts `name`. A name that is empty, starts with "." or contains "/"
    // gives EINVAL.
    [[nodiscard]] virtual MaybeError post(const std::string& name) = 0;

    // The state of `name`: a counter that grows with every post (0 before the
    // first one).
    virtual std::uint64_t state(const std::string& name) = 0;

    // Calls `handler` on `queue` with the new state after posts of `name`.
    virtual Result<std::unique_ptr<NotificationObservation>> observe(const std::string& name,
                                                                    std::shared_ptr<SerialQueue> queue,
                                                                    Handler handler) = 0;
};

} // namespace tv::platform
