// InterfaceDescriptor: a named declaration of the set of messages that an
// object answers, possibly adopting other descriptors (whose messages it then
// answers too).
//
// A descriptor is built, then registered with an InterfaceDescriptorRegistry;
// from registration on it is immutable and may be read from any thread.
// Adding an adopted descriptor to a registered one is an internal
// inconsistency. Before registration only the thread that built it may
// touch it.
#pragma once

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tv {

class InterfaceDescriptor {
public:
    explicit InterfaceDescriptor(std::string name, std::set<std::string, std::less<>> messages = {});

    const std::string& name() const { return name_; }
    // The messages declared by this descriptor itself.
    const std::set<std::string, std::less<>>& messages() const { return messages_; }
    const std::vector<std::shared_ptr<const InterfaceDescriptor>>& adoptedDescriptors() const { return adopted_; }

    // REQUIRES: this is not registered; `descriptor` is registered.
    void addAdoptedDescriptor(std::shared_ptr<const InterfaceDescriptor> descriptor);

    bool isRegistered() const { return registered_.load(std::memory_order_acquire); }

    // Whether the message is declared here or by a descriptor adopted,
    // directly or not.
    bool answersMessage(std::string_view message) const;
    // Whether this is `other` (by name) or adopts it, directly or not.
    bool conformsTo(std::string_view otherName) const;

private:
    friend class InterfaceDescriptorRegistry;
    void markRegistered() { registered_.store(true, std::memory_order_release); }

    std::string name_;
    std::set<std::string, std::less<>> messages_;
    std::vector<std::shared_ptr<const InterfaceDescriptor>> adopted_;
    std::atomic<bool> registered_{false};
};

} // namespace tv
