// RegistryApplicationRecord: the application registry's record of one
// installed application bundle (a "*.app" directory under an application
// root).
//
// An immutable value: the registry builds a new record whenever what it
// knows about the application changes and shares records as
// std::shared_ptr<const RegistryApplicationRecord>. Safe to read from any
// thread.
#pragma once

#include "base/Uuid.h"
#include "base/Value.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tv::platform {

struct RegistryApplicationRecord {
    // Canonical path of the bundle directory, without a trailing "/".
    std::string bundlePath;
    // "KbBundleIdentifier"; empty when the application declares none.
    std::string bundleIdentifier;
    // "KbApplicationIsPlaceholder" read as a boolean: an installer is still
    // copying the application in.
    bool isPlaceholder = false;
    // "KbBundleDisplayName", else "KbBundleName"; none when neither is a string.
    std::optional<std::string> localizedName;
    // The whole Info.vlist dictionary.
    Value infoDictionary;
    // The UUIDs of the plug-ins in its "PlugIns" directory, ordered by
    // bundle path so that the order is the same on every scan.
    std::vector<Uuid> plugInUuids;

    // file:// URL of bundlePath.
    Value bundleUrl() const { return Value::fileURL(bundlePath); }
};

using RegistryApplicationRecordPtr = std::shared_ptr<const RegistryApplicationRecord>;

} // namespace tv::platform
