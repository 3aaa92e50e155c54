// FakeApplicationRegistry: an application registry that records what is
// registered and unregistered by path. Paths in `refused` cannot be
// registered; unregistering a path that is not registered fails.
#pragma once

#include "platform/registry/ApplicationRegistry.h"
#include "platform/PosixError.h"

#include <cerrno>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace tv::test {

class FakeApplicationRegistry final : public platform::ApplicationRegistry {
public:
    std::set<std::string> refused;

    std::vector<std::string> registered() const
    {
        std::lock_guard lock(mutex_);
        return {paths_.begin(), paths_.end()};
    }

    std::vector<platform::RegistryPlugInRecordPtr> allPlugIns() override { return {}; }
    platform::RegistryPlugInRecordPtr plugInWithUuid(const Uuid&) override { return nullptr; }
    platform::RegistryPlugInRecordPtr plugInAtPath(const std::string&) override { return nullptr; }
    platform::RegistryApplicationRecordPtr applicationAtPath(const std::string&) override { return nullptr; }
    std::vector<platform::RegistryPlugInRecordPtr> plugInsOfApplication(const platform::RegistryApplicationRecord&) override
    {
        return {};
    }
    std::optional<std::vector<platform::RegistryPlugInRecordPtr>> queryPlugIns(
        const Value&, const platform::RegistryPlugInFilter&) override
    {
        return std::vector<platform::RegistryPlugInRecordPtr>{};
    }
    MaybeError registerPlugIn(const std::string& path) override
    {
        std::lock_guard lock(mutex_);
        if (refused.count(path))
            return platform::posixError(EINVAL, "not a plug-in bundle: " + path);
        paths_.insert(path);
        return std::nullopt;
    }
    MaybeError unregisterPlugIn(const std::string& path) override
    {
        std::lock_guard lock(mutex_);
        if (!paths_.erase(path))
            return platform::posixError(ENOENT, "no plug-in at " + path);
        return std::nullopt;
    }
    void rescan() override {}
    void addObserver(std::weak_ptr<platform::ApplicationRegistryObserver>) override {}
    void dropCaches() override {}

private:
    mutable std::mutex mutex_;
    std::set<std::string> paths_;
};

} // namespace tv::test
