// FakeApplicationRegistry: an application registry that records what is
// registered and unregistered by path; unregistering a path that is not
// registered fails. Tests put
// plug-in and application records in `plugIns` and `applications` for the
// lookups, and call the observers themselves (notifyInstall/notifyUninstall).
#pragma once

#include "platform/registry/ApplicationRegistry.h"
#include "platform/PosixError.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace tv::test {

class FakeApplicationRegistry final : public platform::ApplicationRegistry {
public:

    std::vector<std::string> registered() const
    {
        std::lock_guard lock(mutex_);
        return {paths_.begin(), paths_.end()};
    }

    // Lookups answer from these; guarded by the caller (set them up before use).
    std::vector<platform::RegistryPlugInRecordPtr> plugIns;
    std::vector<platform::RegistryApplicationRecordPtr> applications;
    std::atomic<int> uuidLookups{0};
    std::atomic<int> cacheDrops{0};

    void notifyInstall(const std::vector<platform::RegistryPlugInRecordPtr>& records)
    {
        for (auto& o : observers())
            o->pluginsDidInstall(records);
    }
    void notifyUninstall(const std::vector<platform::RegistryPlugInRecordPtr>& records)
    {
        for (auto& o : observers())
            o->pluginsWillUninstall(records);
    }

    std::vector<platform::RegistryPlugInRecordPtr> allPlugIns() override { return plugIns; }
    platform::RegistryPlugInRecordPtr plugInWithUuid(const Uuid& uuid) override
    {
        ++uuidLookups;
        return first(plugIns, [&](const auto& p) { return p.uuid == uuid; });
    }
    platform::RegistryPlugInRecordPtr plugInAtPath(const std::string& path) override
    {
        return first(plugIns, [&](const auto& p) { return p.bundlePath == path; });
    }
    platform::RegistryApplicationRecordPtr applicationAtPath(const std::string& path) override
    {
        return first(applications, [&](const auto& a) { return a.bundlePath == path; });
    }
    std::vector<platform::RegistryPlugInRecordPtr> plugInsOfApplication(
        const platform::RegistryApplicationRecord& application) override
    {
        std::vector<platform::RegistryPlugInRecordPtr> result;
        for (const auto& uuid : application.plugInUuids)
            if (auto p = first(plugIns, [&](const auto& r) { return r.uuid == uuid; }))
                result.push_back(p);
        return result;
    }
    // Queries match every record in `plugIns` (the query is only recorded
    // in `lastQuery`), kept by the filter; none when `queryFails`.
    bool queryFails = false;
    Value lastQuery;
    std::optional<std::vector<platform::RegistryPlugInRecordPtr>> queryPlugIns(
        const Value& query, const platform::RegistryPlugInFilter& filter) override
    {
        lastQuery = query;
        if (queryFails)
            return std::nullopt;
        std::vector<platform::RegistryPlugInRecordPtr> kept;
        for (const auto& p : plugIns)
            if (!filter || filter(*p))
                kept.push_back(p);
        return kept;
    }
    MaybeError registerPlugIn(const std::string& path) override
    {
        std::lock_guard lock(mutex_);
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
    void addObserver(std::weak_ptr<platform::ApplicationRegistryObserver> observer) override
    {
        std::lock_guard lock(mutex_);
        observers_.push_back(std::move(observer));
    }
    void dropCaches() override { ++cacheDrops; }

private:
    template <class Ptr, class Pred>
    static Ptr first(const std::vector<Ptr>& records, Pred matches)
    {
        auto it = std::find_if(records.begin(), records.end(), [&](const Ptr& r) { return matches(*r); });
        return it == records.end() ? nullptr : *it;
    }

    mutable std::mutex mutex_;
    std::set<std::string> paths_;
    std::vector<std::weak_ptr<platform::ApplicationRegistryObserver>> observers_;

    std::vector<std::shared_ptr<platform::ApplicationRegistryObserver>> observers()
    {
        std::lock_guard lock(mutex_);
        std::vector<std::shared_ptr<platform::ApplicationRegistryObserver>> live;
        for (auto& w : observers_)
            if (auto o = w.lock())
                live.push_back(o);
        return live;
    }
};

} // namespace tv::test
