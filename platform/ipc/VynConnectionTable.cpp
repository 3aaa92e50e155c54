#include "platform/ipc/VynConnectionTable.h"

#include "platform/ipc/LinuxVynConnection.h"

#include <algorithm>

namespace tv::platform {

VynConnectionTable::Slot::~Slot()
{
    table_->release(this);
}

void VynConnectionTable::Slot::attach(std::weak_ptr<LinuxVynConnection> connection)
{
    std::lock_guard lock(table_->mutex_);
    connection_ = std::move(connection);
}

std::variant<std::unique_ptr<VynConnectionTable::Slot>, std::string> VynConnectionTable::admit(uid_t uid)
{
    std::lock_guard lock(mutex_);
    if (slots_.size() >= limits_.maxConnections)
        return std::to_string(slots_.size()) + " connections in all (limit " + std::to_string(limits_.maxConnections) +
               ")";
    std::size_t& n = perUid_[uid];
    if (n >= limits_.maxConnectionsPerUid)
        return std::to_string(n) + " connections for uid " + std::to_string(uid) + " (limit " +
               std::to_string(limits_.maxConnectionsPerUid) + ")";
    ++n;
    std::unique_ptr<Slot> slot(new Slot(shared_from_this(), uid));
    slots_.insert(slot.get());
    return slot;
}

void VynConnectionTable::release(Slot* slot)
{
    std::lock_guard lock(mutex_);
    if (!slots_.erase(slot))
        return;
    auto it = perUid_.find(slot->uid_);
    if (it != perUid_.end() && --it->second == 0)
        perUid_.erase(it);
}

namespace {
// Freed memory is handed back to the system when all queued requests have
// run after at least this much was queued at once.
constexpr std::size_t kTrimAfter = 4u << 20;
} // namespace

bool VynConnectionTable::reserve(uid_t uid, std::size_t bytes, std::weak_ptr<LinuxVynConnection> waiter)
{
    std::lock_guard lock(mutex_);
    std::size_t& held = queuedBytes_[uid];
    if (bytes > limits_.maxQueuedPerUid || held > limits_.maxQueuedPerUid - bytes) {
        waiters_[uid].push_back(std::move(waiter));
        return false;
    }
    held += bytes;
    totalQueued_ += bytes;
    peakSinceTrim_ = std::max(peakSinceTrim_, totalQueued_);
    return true;
}

VynConnectionTable::Released VynConnectionTable::release(uid_t uid, std::size_t bytes)
{
    Released out;
    std::lock_guard lock(mutex_);
    auto it = queuedBytes_.find(uid);
    if (it == queuedBytes_.end())
        return out;
    bytes = std::min(bytes, it->second);
    it->second -= bytes;
    totalQueued_ -= bytes;
    if (it->second == 0)
        queuedBytes_.erase(it);
    if (auto w = waiters_.find(uid); w != waiters_.end()) {
        out.waiters = std::move(w->second);
        waiters_.erase(w);
    }
    if (totalQueued_ == 0 && peakSinceTrim_ >= kTrimAfter) {
        peakSinceTrim_ = 0;
        out.trimMemory = true;
    }
    return out;
}

std::size_t VynConnectionTable::queuedBytes(uid_t uid) const
{
    std::lock_guard lock(mutex_);
    auto it = queuedBytes_.find(uid);
    return it == queuedBytes_.end() ? 0 : it->second;
}

std::size_t VynConnectionTable::count() const
{
    std::lock_guard lock(mutex_);
    return slots_.size();
}

std::vector<std::shared_ptr<LinuxVynConnection>> VynConnectionTable::connections() const
{
    std::vector<std::shared_ptr<LinuxVynConnection>> out;
    std::lock_guard lock(mutex_);
    for (Slot* s : slots_)
        if (auto c = s->connection_.lock())
            out.push_back(std::move(c));
    return out;
}

} // namespace tv::platform
