// RegistryPlugInRecord: the application registry's record of one installed
// plug-in bundle ("*.vext").
//
// An immutable value: the registry builds a new record whenever what it
// knows about the plug-in changes and shares records as
// std::shared_ptr<const RegistryPlugInRecord>. Two records with the same
// uuid describe the same installation of the same identifier and version.
// Safe to read from any thread.
#pragma once

#include "base/Date.h"
#include "base/Uuid.h"
#include "base/Value.h"
#include "platform/registry/RegistryApplicationRecord.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tv::platform {

struct RegistryPlugInRecord {
    // Assigned at random when this path was first recorded with this
    // identifier and version; kept across restarts while both stay the same.
    Uuid uuid;
    // Canonical path of the bundle directory, without a trailing "/".
    std::string bundlePath;
    // file:// URL of bundlePath; null for a record that has no bundle.
    Value bundleUrl;
    // "KoExtensionIdentifier" of the plug-in dictionary when it is a string,
    // else "KbBundleIdentifier". Never empty.
    std::string plugInIdentifier;
    // "KbBundleIdentifier"; empty when the bundle declares none.
    std::string originalIdentifier;
    // Identifier of the bundle itself ("KbBundleIdentifier").
    std::string bundleIdentifier;
    // "KbBundleVersion", else "KbBundleShortVersionString"; empty when neither.
    std::string bundleVersion;
    // When the registry recorded this version of the bundle.
    Date registrationDate;
    // The bundle lies below the configured system volume root.
    bool onSystemVolume = false;
    // <containers root>/Data/PlugIn/<UUID>/ when it exists (it is created at
    // registration); empty when it could not be made.
    std::string dataContainerPath;
    // Entitlements of the plug-in's executable: name to value, empty when none.
    Value entitlements;
    // "KbBundleDisplayName", else "KbBundleName"; none when neither is a string.
    std::optional<std::string> localizedName;
    // "KbBundleName"; none when it is not a string.
    std::optional<std::string> localizedShortName;
    // The Info.vlist dictionary completed with its extension point's SDK
    // defaults (docs/sdk-merge.md): the bundle's own values win.
    Value infoDictionary;
    // Its "KoExtension" dictionary, canonical: "KoExtensionAttributes" is a
    // dictionary holding "KoExtensionVersion" (defaulted to
    // "KbBundleShortVersionString", else "1").
    Value plugInDictionary;
    // "KoExtensionPointIdentifier" of the bundle's own plug-in dictionary;
    // empty when it is not a string.
    std::string extensionPointIdentifier;
    // The application whose "PlugIns" directory holds the bundle; null for
    // system plug-ins and bundles registered by path outside any application.
    RegistryApplicationRecordPtr containingApplication;
    // Registered explicitly by path (and so persisted as a registration).
    bool registeredByPath = false;

    // Values of a key in the three scopes of the bundle's information, as
    // resolved above: the whole dictionary, the plug-in dictionary and its
    // "KoExtensionAttributes". The attributes scope also answers the keys of
    // the plug-in dictionary that the attributes do not set, so that a rule
    // on "KoExtensionPointIdentifier" matches. Null when absent.
    const Value& infoValue(std::string_view key) const { return infoDictionary[key]; }
    const Value& plugInValue(std::string_view key) const { return plugInDictionary[key]; }
    const Value& attributeValue(std::string_view key) const
    {
        const Value& attribute = plugInDictionary["KoExtensionAttributes"][key];
        return attribute.isNull() ? plugInDictionary[key] : attribute;
    }
    // file:// URL of the data container (with its trailing "/"); null when there is none.
    Value dataContainerUrl() const
    {
        return dataContainerPath.empty() ? Value() : Value::fileURL(dataContainerPath);
    }
};

using RegistryPlugInRecordPtr = std::shared_ptr<const RegistryPlugInRecord>;

} // namespace tv::platform
