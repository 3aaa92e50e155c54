#include "platform/registry/RegistryIndex.h"

#include "platform/log/PlatformLog.h"
#include "platform/sdk/SdkMerge.h"

#include <algorithm>
#include <numeric>
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

RegistryIndex::RegistryIndex(std::shared_ptr<const StoredRegistry> stored, const Locations& locations,
                             std::shared_ptr<ExtensionSdkRegistry> sdks)
    : stored_(std::move(stored)), locations_(locations), sdks_(std::move(sdks))
{
    // Applications first, each with the UUIDs of its plug-ins in path order.
    std::map<std::string, std::shared_ptr<RegistryApplicationRecord>, std::less<>> apps;
    for (const StoredApplication& a : stored_->applications) {
        auto app = std::make_shared<RegistryApplicationRecord>();
        app->bundlePath = a.path;
        app->bundleIdentifier = stringOf(a.info["KbBundleIdentifier"]).value_or("");
        app->isPlaceholder = a.info["KbApplicationIsPlaceholder"].boolValue();
        app->localizedName = localizedNameOf(a.info);
        app->infoDictionary = a.info;
        apps.emplace(a.path, std::move(app));
    }
    // Stored plug-ins come ordered by path; sorting what is sorted is cheap.
    std::vector<const StoredPlugIn*> sorted;
    sorted.reserve(stored_->plugIns.size());
    for (const StoredPlugIn& p : stored_->plugIns)
        sorted.push_back(&p);
    std::sort(sorted.begin(), sorted.end(), [](auto* a, auto* b) { return a->path < b->path; });
    for (const StoredPlugIn* p : sorted) {
        auto it = apps.find(p->applicationPath);
        if (it != apps.end())
            it->second->plugInUuids.push_back(p->uuid);
    }
    for (auto& [path, app] : apps)
        applications_.emplace(path, app);

    // Nothing is decoded here but the rows that do not carry their
    // extension point (stored before the store kept it).
    count_ = sorted.size();
    slots_ = std::make_unique<Slot[]>(count_);
    byUuid_.reserve(count_);
    byPath_.reserve(count_);
    for (std::size_t i = 0; i < count_; ++i) {
        const StoredPlugIn* p = sorted[i];
        slots_[i].row = p;
        byUuid_.emplace(p->uuid, i);
        byPath_.emplace(p->path, i);
        std::string derived;
        const std::string& point = p->extensionPoint ? *p->extensionPoint : (derived = p->extensionPointIdentifier());
        auto it = byExtensionPoint_.find(point);
        if (it == byExtensionPoint_.end())
            it = byExtensionPoint_.emplace(point, std::vector<std::size_t>()).first;
        it->second.push_back(i);
    }
}

RegistryPlugInRecordPtr RegistryIndex::makeRecord(const StoredPlugIn& p) const
{
    // A row whose dictionaries cannot be decoded is left out; the next scan
    // records that bundle afresh.
    if (!p.info.readable() || !p.entitlements.readable()) {
        platformLog(LogLevel::Error, "registry", "dropping unreadable plug-in row %{public}s", p.path);
        return nullptr;
    }
    const Value& info = p.info.value();
    const Value& entitlements = p.entitlements.value();
    auto record = std::make_shared<RegistryPlugInRecord>();
    record->uuid = p.uuid;
    record->bundlePath = p.path;
    record->bundleUrl = Value::fileURL(p.path);
    record->plugInIdentifier = p.identifier;
    record->originalIdentifier = stringOf(info["KbBundleIdentifier"]).value_or("");
    record->bundleIdentifier = record->originalIdentifier;
    record->bundleVersion = p.version;
    record->registrationDate = p.registered;
    record->onSystemVolume =
        !locations_.systemVolumeRoot.empty() && (p.path + "/").starts_with(locations_.systemVolumeRoot);
    const std::string container = dataContainerPath(locations_.containersRoot, p.uuid);
    if (isDirectory(container))
        record->dataContainerPath = container;
    record->entitlements = entitlements.isDictionary() ? entitlements : Value::emptyDictionary();
    record->localizedName = localizedNameOf(info);
    record->localizedShortName = stringOf(info["KbBundleName"]);
    const Value& extensionPoint = info["KoExtension"]["KoExtensionPointIdentifier"];
    static const Value kNone;
    const Value* sdk = &kNone;
    if (const std::string* name = extensionPoint.asString(); name && sdks_) {
        auto it = sdkOf_.find(*name);
        if (it == sdkOf_.end())
            it = sdkOf_.emplace(*name, sdks_->lookUp(*name).value_or(Value())).first;
        sdk = &it->second;
    }
    ResolvedBundleInfo resolved = resolveBundleInfo(info, *sdk);
    record->infoDictionary = std::move(resolved.infoDictionary);
    record->plugInDictionary = std::move(resolved.plugInDictionary);
    record->extensionPointIdentifier = stringOf(extensionPoint).value_or("");
    if (auto it = applications_.find(p.applicationPath); it != applications_.end())
        record->containingApplication = it->second;
    record->registeredByPath = p.registeredByPath;
    return record;
}

RegistryPlugInRecordPtr RegistryIndex::recordAt(std::size_t i) const
{
    const Slot& slot = slots_[i];
    if (slot.made.load(std::memory_order_acquire))
        return slot.record;
    std::lock_guard lock(makeMutex_);
    if (!slot.made.load(std::memory_order_relaxed)) {
        slot.record = makeRecord(*slot.row);
        slot.made.store(true, std::memory_order_release);
    }
    return slot.record;
}

std::vector<RegistryPlugInRecordPtr> RegistryIndex::recordsAt(const std::vector<std::size_t>& slots) const
{
    std::vector<RegistryPlugInRecordPtr> records;
    records.reserve(slots.size());
    for (std::size_t i : slots)
        if (RegistryPlugInRecordPtr record = recordAt(i))
            records.push_back(std::move(record));
    return records;
}

std::vector<std::size_t> RegistryIndex::allSlots() const
{
    std::vector<std::size_t> slots(count_);
    std::iota(slots.begin(), slots.end(), std::size_t{0});
    return slots;
}

std::vector<RegistryPlugInRecordPtr> RegistryIndex::allPlugIns() const
{
    return recordsAt(allSlots());
}

RegistryPlugInRecordPtr RegistryIndex::plugInWithUuid(const Uuid& uuid) const
{
    auto it = byUuid_.find(uuid);
    return it == byUuid_.end() ? nullptr : recordAt(it->second);
}

RegistryPlugInRecordPtr RegistryIndex::plugInAtPath(const std::string& canonicalPath) const
{
    auto it = byPath_.find(canonicalPath);
    return it == byPath_.end() ? nullptr : recordAt(it->second);
}

RegistryApplicationRecordPtr RegistryIndex::applicationAtPath(const std::string& canonicalPath) const
{
    auto it = applications_.find(canonicalPath);
    return it == applications_.end() ? nullptr : it->second;
}

std::optional<std::vector<RegistryPlugInRecordPtr>> RegistryIndex::candidates(const Value& query) const
{
    if (query.isNull())
        return allPlugIns();
    if (!query.isDictionary())
        return std::nullopt;

    // Slots are in path order: sorting them sorts by path.
    std::vector<std::size_t> picked;
    if (auto points = exactStrings(query["KoExtensionPointIdentifier"])) {
        for (const std::string& point : *points) {
            auto it = byExtensionPoint_.find(point);
            if (it != byExtensionPoint_.end())
                picked.insert(picked.end(), it->second.begin(), it->second.end());
        }
        if (points->size() > 1) {
            std::sort(picked.begin(), picked.end());
            picked.erase(std::unique(picked.begin(), picked.end()), picked.end());
        }
    } else {
        picked = allSlots();
    }
    if (auto identifiers = exactStrings(query["KoExtensionIdentifier"])) {
        std::erase_if(picked, [&](std::size_t i) {
            return std::find(identifiers->begin(), identifiers->end(), slots_[i].row->identifier) ==
                   identifiers->end();
        });
    }
    return recordsAt(picked);
}

} // namespace tv::platform
