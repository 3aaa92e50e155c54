#include "Tarvik/ConnectionInterface.h"

#include "base/InternalInconsistency.h"

#include <algorithm>

namespace tv {

ConnectionInterface::ConnectionInterface(std::shared_ptr<const InterfaceDescriptor> descriptor)
    : descriptor_(std::move(descriptor))
{}

void ConnectionInterface::setArgumentTypes(std::string_view message, MessageDirection direction,
                                           std::int64_t position, const std::vector<ArgumentType>& types)
{
    std::vector<ArgumentType> distinct;
    for (const auto& t : types)
        if (std::find(distinct.begin(), distinct.end(), t) == distinct.end())
            distinct.push_back(t);
    set(message, direction, position, std::move(distinct));
}

void ConnectionInterface::setArgumentInterface(std::string_view message, MessageDirection direction,
                                               std::int64_t position, std::shared_ptr<ConnectionInterface> nested)
{
    if (!nested)
        raiseInternalInconsistency("typing an argument with a null interface");
    set(message, direction, position, std::move(nested));
}

void ConnectionInterface::set(std::string_view message, MessageDirection direction, std::int64_t position,
                              ArgumentTyping typing)
{
    std::lock_guard lock(mutex_);
    typings_.insert_or_assign(Key{std::string(message), direction, position}, std::move(typing));
}

std::optional<ArgumentTyping> ConnectionInterface::argumentTyping(std::string_view message,
                                                                  MessageDirection direction,
                                                                  std::int64_t position) const
{
    std::lock_guard lock(mutex_);
    auto it = typings_.find(Key{std::string(message), direction, position});
    if (it == typings_.end())
        return std::nullopt;
    return it->second;
}

std::size_t ConnectionInterface::typedArgumentCount() const
{
    std::lock_guard lock(mutex_);
    return typings_.size();
}

} // namespace tv
