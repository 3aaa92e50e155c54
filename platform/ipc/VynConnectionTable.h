// VynConnectionTable: the accepted connections of one IPC service, counted
// per peer uid and in all, so that the listener can refuse a connection
// past the limits and the process lifecycle can tell whether anyone is
// connected.
//
// A connection holds a Slot from admission until it closes; releasing the
// slot (closing, or destroying a connection never resumed) frees its place.
//
// The table also keeps each uid's account of decoded request memory (the
// per-uid quota): a connection reserves room before it decodes a frame and
// is remembered as waiting when the uid's account is full; releasing memory
// hands back the waiters to wake. When the whole account drains after a
// large peak, release() asks the caller to give freed memory back to the
// system.
// Thread-safety: every operation may be called from any thread.
#pragma once

#include "platform/PlatformConfig.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <unordered_set>
#include <variant>
#include <vector>

namespace tv::platform {

class LinuxVynConnection;

class VynConnectionTable : public std::enable_shared_from_this<VynConnectionTable> {
public:
    class Slot {
    public:
        ~Slot();
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;
        void attach(std::weak_ptr<LinuxVynConnection> connection);
        const std::shared_ptr<VynConnectionTable>& table() const { return table_; }
        uid_t uid() const { return uid_; }

    private:
        friend class VynConnectionTable;
        Slot(std::shared_ptr<VynConnectionTable> table, uid_t uid) : table_(std::move(table)), uid_(uid) {}
        std::shared_ptr<VynConnectionTable> table_;
        uid_t uid_;
        std::weak_ptr<LinuxVynConnection> connection_;
    };

    explicit VynConnectionTable(const VynLimits& limits) : limits_(limits) {}

    // A slot for a new connection from `uid`, or the reason it is refused.
    std::variant<std::unique_ptr<Slot>, std::string> admit(uid_t uid);

    std::size_t count() const;

    // Takes `bytes` from uid's quota, or remembers `waiter` and returns false
    // when they do not fit.
    bool reserve(uid_t uid, std::size_t bytes, std::weak_ptr<LinuxVynConnection> waiter);
    struct Released {
        std::vector<std::weak_ptr<LinuxVynConnection>> waiters; // to wake
        bool trimMemory = false;
    };
    // Gives `bytes` back to uid's quota.
    Released release(uid_t uid, std::size_t bytes);
    std::size_t queuedBytes(uid_t uid) const;
    // The connections holding a slot (those not yet destroyed).
    std::vector<std::shared_ptr<LinuxVynConnection>> connections() const;

private:
    void release(Slot* slot);

    const VynLimits limits_;
    mutable std::mutex mutex_;
    std::unordered_map<uid_t, std::size_t> perUid_;
    std::unordered_set<Slot*> slots_;
    std::unordered_map<uid_t, std::size_t> queuedBytes_;
    std::unordered_map<uid_t, std::vector<std::weak_ptr<LinuxVynConnection>>> waiters_;
    std::size_t totalQueued_ = 0;
    std::size_t peakSinceTrim_ = 0;
};

} // namespace tv::platform
