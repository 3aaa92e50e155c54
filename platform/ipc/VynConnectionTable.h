// VynConnectionTable: the accepted connections of one IPC service, counted
// per peer uid and in all, so that the listener can refuse a connection
// past the limits and the process lifecycle can tell whether anyone is
// connected.
//
// A connection holds a Slot from admission until it closes; releasing the
// slot (closing, or destroying a connection never resumed) frees its place.
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
    // The connections holding a slot (those not yet destroyed).
    std::vector<std::shared_ptr<LinuxVynConnection>> connections() const;

private:
    void release(Slot* slot);

    const VynLimits limits_;
    mutable std::mutex mutex_;
    std::unordered_map<uid_t, std::size_t> perUid_;
    std::unordered_set<Slot*> slots_;
};

} // namespace tv::platform
