// ConnectionInterface: the typing of the messages sent over a connection to
// an object that answers one interface descriptor.
//
// For each message name, direction (the message's own arguments or its
// reply's) and argument position it records at most one typing: either the
// set of allowed types, or a nested interface (the argument is an object
// answering another descriptor, typed in turn by its own
// ConnectionInterface). Typing an argument again replaces the earlier typing.
// Thread-safe.
#pragma once

#include "Tarvik/InterfaceDescriptor.h"
#include "Tarvik/TypeNameRegistry.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <variant>
#include <vector>

namespace tv {

enum class MessageDirection { Request, Reply };

class ConnectionInterface;

// Allowed types (each at most once, in the order first given), or a nested
// interface.
using ArgumentTyping = std::variant<std::vector<ArgumentType>, std::shared_ptr<ConnectionInterface>>;

class ConnectionInterface {
public:
    // An interface for objects answering `descriptor` (null: untyped).
    explicit ConnectionInterface(std::shared_ptr<const InterfaceDescriptor> descriptor = nullptr);

    const std::shared_ptr<const InterfaceDescriptor>& descriptor() const { return descriptor_; }

    void setArgumentTypes(std::string_view message, MessageDirection direction, std::int64_t position,
                          const std::vector<ArgumentType>& types);
    // REQUIRES: `nested` not null.
    void setArgumentInterface(std::string_view message, MessageDirection direction, std::int64_t position,
                              std::shared_ptr<ConnectionInterface> nested);

    // The typing of one argument, or absent when it was never typed.
    std::optional<ArgumentTyping> argumentTyping(std::string_view message, MessageDirection direction,
                                                 std::int64_t position) const;
    // Number of typed arguments over all messages and directions.
    std::size_t typedArgumentCount() const;

private:
    using Key = std::tuple<std::string, MessageDirection, std::int64_t>;

    void set(std::string_view message, MessageDirection direction, std::int64_t position, ArgumentTyping typing);

    std::shared_ptr<const InterfaceDescriptor> descriptor_;
    mutable std::mutex mutex_;
    std::map<Key, ArgumentTyping> typings_;
};

} // namespace tv
