#include "tests/support/FakeExtensionSdkRegistry.h"

namespace tv::test {

void FakeExtensionSdkRegistry::set(const std::string& identifier, Value dictionary)
{
    std::lock_guard lock(mutex_);
    entries_.insert_or_assign(identifier, std::move(dictionary));
}

std::size_t FakeExtensionSdkRegistry::lookUpCount() const
{
    std::lock_guard lock(mutex_);
    return lookUps_;
}

std::optional<Value> FakeExtensionSdkRegistry::lookUp(const std::string& extensionPointIdentifier)
{
    std::lock_guard lock(mutex_);
    ++lookUps_;
    auto it = entries_.find(extensionPointIdentifier);
    if (it == entries_.end())
        return std::nullopt;
    return it->second;
}

} // namespace tv::test
