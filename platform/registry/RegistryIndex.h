// RegistryIndex: an immutable in-memory view of the application registry's
// stored contents, with the records built and indexed for lookups.
//
// Built in one pass from the stored rows; never changed afterwards, so one
// index can be read from any number of threads while the registry builds
// its successor. Plug-ins are kept ordered by bundle path, and additionally
// by UUID, by path and by extension point identifier.
//
// Each record's dictionaries are resolved against its extension point's SDK
// (SdkMerge): the SDK registry is asked once per extension point per build,
// so an SDK installed or changed is seen by the next index.
#pragma once

#include "base/Uuid.h"
#include "base/Value.h"
#include "platform/registry/RegistryApplicationRecord.h"
#include "platform/registry/RegistryDatabase.h"
#include "platform/registry/RegistryPlugInRecord.h"
#include "platform/sdk/ExtensionSdkRegistry.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
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

    // `sdks` may be null: no SDK is registered then.
    RegistryIndex(const StoredRegistry& stored, const Locations& locations, ExtensionSdkRegistry* sdks);

    // <containersRoot>/Data/PlugIn/<UUID>/
    static std::string dataContainerPath(const std::string& containersRoot, const Uuid& uuid);

    const std::vector<RegistryPlugInRecordPtr>& allPlugIns() const { return plugIns_; }
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
    std::vector<RegistryPlugInRecordPtr> plugIns_;
    std::unordered_map<Uuid, RegistryPlugInRecordPtr> byUuid_;
    std::unordered_map<std::string, RegistryPlugInRecordPtr> byPath_;
    std::unordered_map<std::string, std::vector<RegistryPlugInRecordPtr>> byExtensionPoint_;
    std::map<std::string, RegistryApplicationRecordPtr, std::less<>> applications_;
};

} // namespace tv::platform
