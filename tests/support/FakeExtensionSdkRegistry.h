// FakeExtensionSdkRegistry: an in-memory extension SDK registry for tests.
// Entries can be changed between calls; every lookUp() is counted, so tests
// can prove that callers ask afresh instead of caching.
#pragma once

#include "platform/sdk/ExtensionSdkRegistry.h"

#include <map>
#include <mutex>

namespace tv::test {

class FakeExtensionSdkRegistry final : public platform::ExtensionSdkRegistry {
public:
    void set(const std::string& identifier, Value dictionary);
    std::size_t lookUpCount() const;

    std::optional<Value> lookUp(const std::string& extensionPointIdentifier) override;

private:
    mutable std::mutex mutex_;
    std::map<std::string, Value> entries_;
    std::size_t lookUps_ = 0;
};

} // namespace tv::test
