#include "Tarvik/InterfaceDescriptor.h"

#include "base/InternalInconsistency.h"

namespace tv {

InterfaceDescriptor::InterfaceDescriptor(std::string name, std::set<std::string, std::less<>> messages)
    : name_(std::move(name)), messages_(std::move(messages))
{}

void InterfaceDescriptor::addAdoptedDescriptor(std::shared_ptr<const InterfaceDescriptor> descriptor)
{
    if (isRegistered())
        raiseInternalInconsistency("adopting a descriptor into registered interface " + name_);
    if (!descriptor || !descriptor->isRegistered())
        raiseInternalInconsistency("adopting an unregistered descriptor into interface " + name_);
    adopted_.push_back(std::move(descriptor));
}

// Adoption graphs are acyclic: only registered descriptors can be adopted,
// and a registered descriptor adopts nothing more.
bool InterfaceDescriptor::answersMessage(std::string_view message) const
{
    if (messages_.contains(message))
        return true;
    for (const auto& d : adopted_)
        if (d->answersMessage(message))
            return true;
    return false;
}

bool InterfaceDescriptor::conformsTo(std::string_view otherName) const
{
    if (name_ == otherName)
        return true;
    for (const auto& d : adopted_)
        if (d->conformsTo(otherName))
            return true;
    return false;
}

} // namespace tv
