#include "platform/ipc/VynConnectionTable.h"

#include "platform/ipc/LinuxVynConnection.h"

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
