// RegistryIndex: an immutable in-memory view of the application registry's
// stored contents, with the records built and indexed for lookups.
//
// Built in one pass from the stored rows, without decoding them; never
// changed afterwards but for the records it makes on first use (under its
// own lock), so one index can be read from any number of threads while the
// registry builds its successor. Plug-ins are kept ordered by bundle path, and additionally
// by UUID, by path and by extension point identifier.
//
// Each record's dictionaries are resolved against its extension point's SDK
// (SdkMerge): the SDK registry is asked once per extension point per index,
// when its first record is made, so an SDK installed or changed is seen by
// the next index.
#pragma once

#include "base/Uuid.h"
#include "base/Value.h"
#include "platform/registry/RegistryApplicationRecord.h"
#include "platform/registry/RegistryDatabase.h"
#include "platform/registry/RegistryPlugInRecord.h"
#include "platform/sdk/ExtensionSdkRegistry.h"

#include <atomic>
#include <map>
#include <mutex>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tv::platform {

class RegistryIndex {
public:
    // Where derived record fields come from.
    struct Locations {
        std::string systemVolumeRoot; // ends with "/"
        std::string containersRoot;
    };

    // Indexes the rows of `stored`, which it keeps: a plug-in's record is
    // made from its row on first use (each row's dictionaries decoded then),
    // so that a lookup after a start or a change makes only the records it
    // returns. `sdks` may be null: no SDK is registered then.
    RegistryIndex(std::shared_ptr<const StoredRegistry> stored, const Locations& locations,
                  std::shared_ptr<ExtensionSdkRegistry> sdks);
    RegistryIndex(const RegistryIndex&) = delete;
    RegistryIndex& operator=(const RegistryIndex&) = delete;

    // <containersRoot>/Data/PlugIn/<UUID>/
    static std::string dataContainerPath(const std::string& containersRoot, const Uuid& uuid);

    // Every plug-in, ordered by path.
    std::vector<RegistryPlugInRecordPtr> allPlugIns() const;
    RegistryPlugInRecordPtr plugInWithUuid(const Uuid& uuid) const;
    RegistryPlugInRecordPtr plugInAtPath(const std::string& canonicalPath) const;
    RegistryApplicationRecordPtr applicationAtPath(const std::string& canonicalPath) const;

    // The plug-ins the registry's own query keys select (see
    // ApplicationRegistry::queryPlugIns), ordered by path; none when `query`
    // is neither null nor a dictionary. An exact "KoExtensionPointIdentifier"
    // is answered from the index by extension point: the cost follows the
    // plug-ins of those extension points, not the size of the registry.
    std::optional<std::vector<RegistryPlugInRecordPtr>> candidates(const Value& query) const;

private:
    // One stored row and its record, made on first use.
    struct Slot {
        const StoredPlugIn* row = nullptr;
        mutable std::atomic<bool> made{false};
        mutable RegistryPlugInRecordPtr record; // null: the row's dictionaries cannot be decoded
    };
    // The record of slot `i`; null when its row cannot be decoded (logged
    // once).
    RegistryPlugInRecordPtr recordAt(std::size_t i) const;
    // The records of `slots`, in that order, leaving out rows that cannot be
    // decoded.
    std::vector<RegistryPlugInRecordPtr> recordsAt(const std::vector<std::size_t>& slots) const;
    std::vector<std::size_t> allSlots() const; // 0 to count_ - 1
    RegistryPlugInRecordPtr makeRecord(const StoredPlugIn& row) const; // REQUIRES: makeMutex_

    const std::shared_ptr<const StoredRegistry> stored_;
    const Locations locations_;
    const std::shared_ptr<ExtensionSdkRegistry> sdks_;
    std::size_t count_ = 0;
    std::unique_ptr<Slot[]> slots_; // ordered by path
    std::unordered_map<Uuid, std::size_t> byUuid_;
    std::unordered_map<std::string_view, std::size_t> byPath_; // views of the rows' paths
    std::unordered_map<std::string, std::vector<std::size_t>> byExtensionPoint_;
    std::map<std::string, RegistryApplicationRecordPtr, std::less<>> applications_;

    mutable std::mutex makeMutex_; // making records; guards sdkOf_
    mutable std::unordered_map<std::string, Value> sdkOf_; // asked once per extension point
};

} // namespace tv::platform
