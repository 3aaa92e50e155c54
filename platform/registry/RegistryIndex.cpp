#include "platform/registry/RegistryIndex.h"

#include "platform/log/PlatformLog.h"
#include "platform/sdk/SdkMerge.h"

#include <algorithm>
#include <sys/stat.h>

namespace tv::platform {
namespace {

std::optional<std::string> stringOf(const Value& value)
{
    if (const std::string* s = value.asString())
        return *s;
    return std::nullopt;
}

std::optional<std::string> localizedNameOf(const Value& info)
{
    if (auto name = stringOf(info["KbBundleDisplayName"]))
        return name;
    return stringOf(info["KbBundleName"]);
}

bool isDirectory(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool lessByPath(const RegistryPlugInRecordPtr& a, const RegistryPlugInRecordPtr& b)
{
    return a->bundlePath < b->bundlePath;
}

// The exact strings a pattern of one of the registry's own query keys
// stands for; none when the pattern is of a form the registry leaves to the
// caller (operators other than "=", presence tests, non-string elements).
std::optional<std::vector<std::string>> exactStrings(const Value& pattern)
{
    auto one = [](const std::string& s) -> std::optional<std::string> {
        if (!s.empty() && s[0] == '=')
            return s.substr(1);
        if (!s.empty() && (s[0] == '?' || s[0] == '<' || s[0] == '>'))
            return std::nullopt;
        return s;
    };
    std::vector<std::string> out;
    if (const std::string* s = pattern.asString()) {
        auto exact = one(*s);
        if (!exact)
            return std::nullopt;
        out.push_back(std::move(*exact));
        return out;
    }
    const Array* array = pattern.asArray();
    if (!array)
        return std::nullopt;
    for (const Value& element : *array) {
        const std::string* s = element.asString();
        auto exact = s ? one(*s) : std::nullopt;
        if (!exact)
            return std::nullopt;
        out.push_back(std::move(*exact));
    }
    return out;
}

} // namespace

std::string RegistryIndex::dataContainerPath(const std::string& containersRoot, const Uuid& uuid)
{
    return containersRoot + "/Data/PlugIn/" + uuid.string() + "/";
}

RegistryIndex::RegistryIndex(const StoredRegistry& stored, const Locations& locations, ExtensionSdkRegistry* sdks)
{
    std::unordered_map<std::string, Value> sdkOf;
    auto sdkFor = [&](const Value& extensionPoint) -> const Value& {
        static const Value kNone;
        const std::string* name = extensionPoint.asString();
        if (!name || !sdks)
            return kNone;
        auto it = sdkOf.find(*name);
        if (it == sdkOf.end())
            it = sdkOf.emplace(*name, sdks->lookUp(*name).value_or(Value())).first;
        return it->second;
    };

    // Applications first, each with the UUIDs of its plug-ins in path order
    // (stored plug-ins come ordered by path).
    std::map<std::string, std::shared_ptr<RegistryApplicationRecord>, std::less<>> apps;
    for (const StoredApplication& a : stored.applications) {
        auto app = std::make_shared<RegistryApplicationRecord>();
        app->bundlePath = a.path;
        app->bundleIdentifier = stringOf(a.info["KbBundleIdentifier"]).value_or("");
        app->isPlaceholder = a.info["KbApplicationIsPlaceholder"].boolValue();
        app->localizedName = localizedNameOf(a.info);
        app->infoDictionary = a.info;
        apps.emplace(a.path, std::move(app));
    }
    std::vector<const StoredPlugIn*> sorted;
    for (const StoredPlugIn& p : stored.plugIns) {
        // Rows are decoded here, not when the store is read. A row whose
        // dictionaries cannot be decoded is left out; the next scan records
        // that bundle afresh.
        if (!p.info.readable() || !p.entitlements.readable()) {
            platformLog(LogLevel::Error, "registry", "dropping unreadable plug-in row %{public}s", p.path);
            continue;
        }
        sorted.push_back(&p);
    }
    std::sort(sorted.begin(), sorted.end(), [](auto* a, auto* b) { return a->path < b->path; });
    for (const StoredPlugIn* p : sorted) {
        auto it = apps.find(p->applicationPath);
        if (it != apps.end())
            it->second->plugInUuids.push_back(p->uuid);
    }
    for (auto& [path, app] : apps)
        applications_.emplace(path, app);

    plugIns_.reserve(sorted.size());
    for (const StoredPlugIn* p : sorted) {
        const Value& info = p->info.value();
        const Value& entitlements = p->entitlements.value();
        auto record = std::make_shared<RegistryPlugInRecord>();
        record->uuid = p->uuid;
        record->bundlePath = p->path;
        record->bundleUrl = Value::fileURL(p->path);
        record->plugInIdentifier = p->identifier;
        record->originalIdentifier = stringOf(info["KbBundleIdentifier"]).value_or("");
        record->bundleIdentifier = record->originalIdentifier;
        record->bundleVersion = p->version;
        record->registrationDate = p->registered;
        record->onSystemVolume = !locations.systemVolumeRoot.empty() &&
                                 (p->path + "/").starts_with(locations.systemVolumeRoot);
        const std::string container = dataContainerPath(locations.containersRoot, p->uuid);
        if (isDirectory(container))
            record->dataContainerPath = container;
        record->entitlements = entitlements.isDictionary() ? entitlements : Value::emptyDictionary();
        record->localizedName = localizedNameOf(info);
        record->localizedShortName = stringOf(info["KbBundleName"]);
        const Value& extensionPoint = info["KoExtension"]["KoExtensionPointIdentifier"];
        ResolvedBundleInfo resolved = resolveBundleInfo(info, sdkFor(extensionPoint));
        record->infoDictionary = std::move(resolved.infoDictionary);
        record->plugInDictionary = std::move(resolved.plugInDictionary);
        record->extensionPointIdentifier = stringOf(extensionPoint).value_or("");
        if (auto it = applications_.find(p->applicationPath); it != applications_.end())
            record->containingApplication = it->second;
        record->registeredByPath = p->registeredByPath;

        RegistryPlugInRecordPtr shared = std::move(record);
        plugIns_.push_back(shared);
        byUuid_.emplace(shared->uuid, shared);
        byPath_.emplace(shared->bundlePath, shared);
        byExtensionPoint_[shared->extensionPointIdentifier].push_back(shared);
    }
}

RegistryPlugInRecordPtr RegistryIndex::plugInWithUuid(const Uuid& uuid) const
{
    auto it = byUuid_.find(uuid);
    return it == byUuid_.end() ? nullptr : it->second;
}

RegistryPlugInRecordPtr RegistryIndex::plugInAtPath(const std::string& canonicalPath) const
{
    auto it = byPath_.find(canonicalPath);
    return it == byPath_.end() ? nullptr : it->second;
}

RegistryApplicationRecordPtr RegistryIndex::applicationAtPath(const std::string& canonicalPath) const
{
    auto it = applications_.find(canonicalPath);
    return it == applications_.end() ? nullptr : it->second;
}

std::optional<std::vector<RegistryPlugInRecordPtr>> RegistryIndex::candidates(const Value& query) const
{
    if (query.isNull())
        return plugIns_;
    if (!query.isDictionary())
        return std::nullopt;

    std::vector<RegistryPlugInRecordPtr> result;
    if (auto points = exactStrings(query["KoExtensionPointIdentifier"])) {
        for (const std::string& point : *points) {
            auto it = byExtensionPoint_.find(point);
            if (it != byExtensionPoint_.end())
                result.insert(result.end(), it->second.begin(), it->second.end());
        }
        if (points->size() > 1) {
            std::sort(result.begin(), result.end(), lessByPath);
            result.erase(std::unique(result.begin(), result.end()), result.end());
        }
    } else {
        result = plugIns_;
    }
    if (auto identifiers = exactStrings(query["KoExtensionIdentifier"])) {
        std::erase_if(result, [&](const RegistryPlugInRecordPtr& p) {
            return std::find(identifiers->begin(), identifiers->end(), p->plugInIdentifier) == identifiers->end();
        });
    }
    return result;
}

} // namespace tv::platform
