#include "Tarvik/TvPlugInCore.h"

#include "Tarvik/TvLog.h"
#include "base/InternalInconsistency.h"
#include "platform/sdk/ExtensionSdkRegistry.h"
#include "platform/sdk/SdkMerge.h"

#include <limits>
#include <mutex>

namespace tv {

namespace {

// Form keys.
constexpr const char* kFormHubProtocolVersion = "hubProtocolVersion";
constexpr const char* kFormPath = "path";
constexpr const char* kFormSystemResident = "systemResident";
constexpr const char* kFormIdentifier = "identifier";
constexpr const char* kFormOriginalIdentifier = "original-identifier";
constexpr const char* kFormVersion = "version";
constexpr const char* kFormBundleInfo = "bundleInfo";
constexpr const char* kFormInfo = "info";
constexpr const char* kFormUuid = "uuid";
constexpr const char* kFormLastModified = "lastmodified";
constexpr const char* kFormAnnotations = "annotations";
constexpr const char* kFormEntitlements = "entitlements";
constexpr const char* kFormContainingPath = "containingPath";
constexpr const char* kFormLocalizedContainingName = "localizedContainingDisplayName";
constexpr const char* kFormLocalizedName = "localizedDisplayName";
constexpr const char* kFormLocalizedShortName = "localizedShortName";
constexpr const char* kFormHash = "hash";
constexpr const char* kFormRequirement = "requirement";

constexpr const char* kDataProtocol = "#Data";

Value optionalString(const std::optional<std::string>& s)
{
    return s ? Value(*s) : Value();
}

std::optional<std::string> stringOf(const Value& v)
{
    if (auto s = v.asString())
        return *s;
    return std::nullopt;
}

// The unsigned reading of a form number: an unsigned integer is itself, any
// other number its integer reading.
std::uint64_t unsignedOf(const Value& v)
{
    if (auto u = v.asUInt())
        return *u;
    return static_cast<std::uint64_t>(v.integerValue());
}

struct SdkRegistryHolder {
    std::mutex mutex;
    std::shared_ptr<platform::ExtensionSdkRegistry> registry;
};

SdkRegistryHolder& sdkRegistryHolder()
{
    static SdkRegistryHolder& holder = *new SdkRegistryHolder;
    return holder;
}

} // namespace

TvPlugInCore::TvPlugInCore() = default;
TvPlugInCore::~TvPlugInCore() = default;

// --- Construction ---------------------------------------------------------

std::shared_ptr<TvPlugInCore> TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(const std::optional<std::string>& name,
                                                                              const Value& url, const Value& bundleInfo,
                                                                              const Value& info,
                                                                              const std::optional<Uuid>& uuid)
{
    std::shared_ptr<TvPlugInCore> record(new TvPlugInCore());
    if (!record->constructWithNameUrlBundleInfoInfoUuid(name, url, bundleInfo, info, uuid))
        return nullptr;
    return record;
}

std::shared_ptr<TvPlugInCore> TvPlugInCore::initWithForm(const Value& form)
{
    std::shared_ptr<TvPlugInCore> record(new TvPlugInCore());
    if (!record->constructWithForm(form))
        return nullptr;
    return record;
}

bool TvPlugInCore::constructWithNameUrlBundleInfoInfoUuid(const std::optional<std::string>& name, const Value& url,
                                                         const Value& bundleInfo, const Value& info,
                                                         const std::optional<Uuid>& uuid)
{
    if (!setupWithNameUrlBundleInfoInfoUuid(name, url, bundleInfo, info, uuid))
        return false;
    if (plugInDictionary().isNull())
        setPlugInDictionary(info);
    return true;
}

bool TvPlugInCore::constructWithForm(const Value& form)
{
    return setupWithForm(form);
}

bool TvPlugInCore::setupWithNameUrlBundleInfoInfoUuid(const std::optional<std::string>& name, const Value& url,
                                                     const Value& bundleInfo, const Value& /*info*/,
                                                     const std::optional<Uuid>& uuid)
{
    if (!url.asUrl())
        return false;
    if (!name) {
        TvLog::ops().error("missing identifier in plug-in at %@", url.urlPath());
        return false;
    }
    if (!bundleInfo.isNull()) {
        if (!setDictionaries(normalizeInfoDictionary(bundleInfo))) {
            TvLog::ops().notice("malformed plug-in dictionary in plug-in %@ at %@: %@", *name, url, bundleInfo);
            return false;
        }
    }
    setIdentifier(name);
    setUrl(url);
    setUuid(uuid ? *uuid : Uuid::random());
    return true;
}

bool TvPlugInCore::setDictionaries(const Value& dictionary)
{
    if (!dictionary.isDictionary())
        return false;
    setBundleInfoDictionary(dictionary);
    const Value& extension = dictionary[kKoExtensionKey];
    if (!extension.isDictionary())
        return false;
    setPlugInDictionary(extension);
    if (!extension[kMultipleKey].isNull())
        TvLog::ops().notice("multiplexed plug-ins (%{public}@ key) obsolete and ignored", kMultipleKey);
    return true;
}

Value TvPlugInCore::normalizeInfoDictionary(const Value& dictionary)
{
    return dictionary;
}

bool TvPlugInCore::setupWithForm(const Value& form)
{
    Value url;
    if (auto path = form[kFormPath].asString())
        url = Value::fileURL(*path);
    std::optional<Uuid> uuid;
    if (auto text = form[kFormUuid].asString())
        uuid = Uuid::parse(*text);

    if (!setupWithNameUrlBundleInfoInfoUuid(stringOf(form[kFormIdentifier]), url, form[kFormBundleInfo],
                                            form[kFormInfo], uuid))
        return false;

    const Value& hub = form[kFormHubProtocolVersion];
    setHubProtocolVersion(hub.isNull() ? 1 : unsignedOf(hub));
    setOriginalIdentifier(stringOf(form[kFormOriginalIdentifier]));
    if (auto bytes = form[kFormHash].asData())
        setSighash(*bytes);
    else
        setSighash(std::nullopt);
    setRequirement(stringOf(form[kFormRequirement]));
    setLastModified(form[kFormLastModified].integerValue());
    setEntitlements(form[kFormEntitlements]);
    if (auto containing = form[kFormContainingPath].asString())
        setContainingUrl(Value::fileURL(*containing));
    setOnSystemVolume(form[kFormSystemResident].boolValue());
    setAnnotations(form[kFormAnnotations]);
    setLocalizedName(stringOf(form[kFormLocalizedName]));
    setLocalizedShortName(stringOf(form[kFormLocalizedShortName]));
    setLocalizedContainingName(stringOf(form[kFormLocalizedContainingName]));
    return true;
}

// --- Identity -------------------------------------------------------------

Uuid TvPlugInCore::identityUuid() const
{
    std::optional<Uuid> id = uuid();
    if (!id)
        raiseInternalInconsistency("plug-in record without uuid asked for its identity");
    return *id;
}

bool TvPlugInCore::isEqual(const TvPlugInCore* other) const
{
    Uuid mine = identityUuid();
    if (!other)
        return false;
    if (other == this)
        return true;
    std::optional<Uuid> theirs = other->uuid();
    return theirs && *theirs == mine;
}

std::uint64_t TvPlugInCore::hash() const
{
    // FNV-1a over the 16 bytes: cheap, and every byte counts.
    const Uuid id = identityUuid();
    std::uint64_t h = 0xcbf29ce484222325ull;
    for (std::uint8_t b : id.bytes()) {
        h ^= b;
        h *= 0x100000001b3ull;
    }
    return h;
}

// --- SDK defaults ---------------------------------------------------------

void TvPlugInCore::setSdkRegistry(std::shared_ptr<platform::ExtensionSdkRegistry> registry)
{
    SdkRegistryHolder& holder = sdkRegistryHolder();
    std::lock_guard lock(holder.mutex);
    holder.registry.swap(registry);
}

std::shared_ptr<platform::ExtensionSdkRegistry> TvPlugInCore::sdkRegistry()
{
    SdkRegistryHolder& holder = sdkRegistryHolder();
    std::lock_guard lock(holder.mutex);
    return holder.registry;
}

Value TvPlugInCore::readSDKDictionary(const std::string& sdkName)
{
    std::optional<Value> entry;
    if (auto registry = sdkRegistry())
        entry = registry->lookUp(sdkName);
    if (!entry || !entry->isDictionary()) {
        TvLog::ops().notice("plug-in sdk \"%{public}@\" not registered", sdkName);
        return Value();
    }
    return std::move(*entry);
}

Value TvPlugInCore::lookUpSDKDictionary(const std::string& sdkName) const
{
    return readSDKDictionary(sdkName);
}

void TvPlugInCore::resolveSDK()
{
    Value own = bundleInfoDictionary();
    if (own.isNull())
        raiseInternalInconsistency("cannot resolve SDK without materialized Info.vlist");

    Value name = sdkSpec();
    if (!name.isNull()) {
        const std::string* text = name.asString();
        if (!text) {
            TvLog::ops().error("invalid SDK key:%{public}@", name.description());
            return;
        }
        Value sdk = lookUpSDKDictionary(*text);
        if (sdk.isDictionary())
            (void)setDictionaries(mergeDictionaryInto(sdk, own));
    }
    canonicalize();
}

void TvPlugInCore::canonicalize()
{
    setPlugInDictionary(platform::canonicalPlugInDictionary(plugInDictionary(), infoKey(kBundleShortVersionStringKey)));
}

Value TvPlugInCore::mergeDictionaryInto(const Value& sdk, const Value& own) const
{
    return platform::mergeSdkDictionaryInto(
        sdk, own,
        platform::SdkMergeSteps{[this](std::string_view key) { return sdkOverridesKey(key); },
                                [this](const Value& sdkList, const Value& ownList) {
                                    return mergeSharedResourcesInto(sdkList, ownList);
                                }});
}

bool TvPlugInCore::sdkOverridesKey(std::string_view key) const
{
    return platform::sdkOverridesKey(key);
}

Value TvPlugInCore::mergeSharedResourcesInto(const Value& sdkList, const Value& ownList) const
{
    return platform::mergeSharedResourcesInto(sdkList, ownList);
}

// --- Form -----------------------------------------------------------------

Result<Value> TvPlugInCore::exportForm() const
{
    Dictionary form;
    const char* missing = nullptr;
    auto required = [&](const char* key, Value value) {
        if (value.isNull()) {
            if (!missing)
                missing = key;
            return;
        }
        form.insert_or_assign(key, std::move(value));
    };
    auto optional = [&](const char* key, Value value) {
        if (!value.isNull())
            form.insert_or_assign(key, std::move(value));
    };

    Value bundleInfo = bundleInfoDictionary();
    std::string bundlePath = path();
    std::optional<Uuid> id = uuid();
    Value annotationsValue = annotations();

    required(kFormHubProtocolVersion, Value(hubProtocolVersion()));
    required(kFormPath, bundlePath.empty() ? Value() : Value(std::move(bundlePath)));
    required(kFormSystemResident, Value(onSystemVolume()));
    required(kFormIdentifier, optionalString(identifier()));
    required(kFormOriginalIdentifier, optionalString(originalIdentifier()));
    required(kFormVersion, version());
    if (!bundleInfo.isDictionary())
        bundleInfo = Value();
    else if (!bundleInfo[kBundleInfoVlistUrlKey].isNull())
        bundleInfo = bundleInfo.without(kBundleInfoVlistUrlKey);
    required(kFormBundleInfo, std::move(bundleInfo));
    required(kFormInfo, plugInDictionary());
    required(kFormUuid, id ? Value(id->string()) : Value());
    required(kFormLastModified, Value(lastModified()));
    required(kFormAnnotations, annotationsValue.isNull() ? Value::emptyDictionary() : annotationsValue);
    if (missing)
        return makeErrorWithFormat(kMisconfiguredPlugInErrorCode, "plug-in form has no value for \"%@\"", missing);

    optional(kFormEntitlements, entitlements());
    optional(kFormContainingPath, optionalString(containingPath()));
    optional(kFormLocalizedContainingName, optionalString(localizedContainingName()));
    optional(kFormLocalizedName, optionalString(localizedName()));
    optional(kFormLocalizedShortName, optionalString(localizedShortName()));
    return Value(std::move(form));
}

void TvPlugInCore::updateFromForm(const Value& form)
{
    setAnnotations(form[kFormAnnotations]);
}

void TvPlugInCore::setAnnotationValue(std::string_view key, const Value& value)
{
    setAnnotations(annotations().with(key, value));
}

// --- Diagnosis ------------------------------------------------------------

MaybeError TvPlugInCore::diagnose() const
{
    constexpr const char* missingKey = "missing \"%@\" key in Info.vlist or SDK";
    if (!identifier())
        return makeError(kMisconfiguredPlugInErrorCode,
                         "missing identifier (no KoExtensionIdentifier, nor even KbBundleIdentifier)");
    if (protocolSpec().isNull())
        return makeErrorWithFormat(kMisconfiguredPlugInErrorCode, missingKey, kKoExtensionProtocolKey);
    if (attributes().isNull())
        return makeErrorWithFormat(kMisconfiguredPlugInErrorCode, missingKey, kKoExtensionAttributesKey);
    if (isAppExtension() && principalSpec() != Value(kKoObject))
        return makeErrorWithFormat(kMisconfiguredPlugInErrorCode, "Application Extensions may not use the \"%@\" key",
                                   kPrincipalClassKey);
    if (!pluginKey(kPassProxyKey).isNull())
        return makeErrorWithFormat(kMisconfiguredPlugInErrorCode, "the \"%@\" key is not supported on this platform",
                                   kPassProxyKey);
    if (isHybrid())
        return makeError(kMisconfiguredPlugInErrorCode, "hybrid plug-ins are not supported on this platform");
    return std::nullopt;
}

bool TvPlugInCore::oldStyle() const
{
    if (!infoKey(kKoExtensionKey).isNull())
        return false;
    if (!infoKey(kTarvikInfoKey).isNull())
        return true;
    raiseInternalInconsistency("unknown plug-in configuration style");
}

// --- Derived properties ---------------------------------------------------

std::string TvPlugInCore::path() const
{
    return url().filePath();
}

std::optional<std::string> TvPlugInCore::containingPath() const
{
    Value containing = containingUrl();
    if (containing.isNull())
        return std::nullopt;
    return containing.filePath();
}

Value TvPlugInCore::attributes() const
{
    return pluginKey(kKoExtensionAttributesKey);
}

Value TvPlugInCore::version() const
{
    return attribute(kKoExtensionVersionKey);
}

Value TvPlugInCore::protocolSpec() const
{
    Value named = pluginKey(kKoExtensionProtocolKey);
    if (named.isNull() && isAppExtension())
        return Value(kKoObject);
    return named;
}

Value TvPlugInCore::principalSpec() const
{
    Value named = pluginKey(kPrincipalClassKey);
    if (named.isNull() && isAppExtension())
        return Value(kKoObject);
    return named;
}

Value TvPlugInCore::sdkSpec() const
{
    return pluginKey(kKoExtensionPointIdentifierKey);
}

Value TvPlugInCore::embeddedCodePath() const
{
    return Value();
}

Value TvPlugInCore::embeddedProtocolSpec() const
{
    Value named = pluginKey(kEmbeddedProtocolKey);
    return named.isNull() ? protocolSpec() : named;
}

bool TvPlugInCore::isAppExtension() const
{
    std::string p = path();
    std::string_view suffix = kAppExtensionSuffix;
    return p.size() >= suffix.size() && std::string_view(p).substr(p.size() - suffix.size()) == suffix;
}

bool TvPlugInCore::isMultiplexed() const
{
    return false;
}

bool TvPlugInCore::isHybrid() const
{
    return !pluginKey(kEmbeddedCodeKey).isNull();
}

bool TvPlugInCore::isDedicated() const
{
    return pluginKey(kDedicatedKey).boolValue();
}

bool TvPlugInCore::isData() const
{
    return protocolSpec() == Value(kDataProtocol);
}

Date TvPlugInCore::timestamp() const
{
    // Dates count microseconds; clamp so that absurd registration times
    // cannot overflow.
    constexpr std::int64_t limit = std::numeric_limits<std::int64_t>::max() / 1000000;
    std::int64_t seconds = lastModified();
    if (seconds > limit)
        seconds = limit;
    if (seconds < -limit)
        seconds = -limit;
    return Date::fromSeconds(seconds);
}

// --- Lookups --------------------------------------------------------------

Value TvPlugInCore::infoKey(std::string_view key) const
{
    return bundleInfoDictionary()[key];
}

Value TvPlugInCore::pluginKey(std::string_view key) const
{
    return plugInDictionary()[key];
}

Value TvPlugInCore::attribute(std::string_view key) const
{
    return attributes()[key];
}

// --- Stored properties ----------------------------------------------------

bool TvPlugInCore::onSystemVolume() const { return onSystemVolume_.load(std::memory_order_relaxed); }
void TvPlugInCore::setOnSystemVolume(bool value) { onSystemVolume_.store(value, std::memory_order_relaxed); }

Value TvPlugInCore::plugInDictionary() const { return plugInDictionary_.load(); }
void TvPlugInCore::setPlugInDictionary(Value value) { plugInDictionary_.store(std::move(value)); }

std::optional<std::string> TvPlugInCore::identifier() const { return stringOf(identifier_.load()); }
void TvPlugInCore::setIdentifier(std::optional<std::string> value) { identifier_.store(optionalString(value)); }

std::optional<std::string> TvPlugInCore::originalIdentifier() const { return stringOf(originalIdentifier_.load()); }
void TvPlugInCore::setOriginalIdentifier(std::optional<std::string> value)
{
    originalIdentifier_.store(optionalString(value));
}

Value TvPlugInCore::url() const { return url_.load(); }
void TvPlugInCore::setUrl(Value value) { url_.store(std::move(value)); }

Value TvPlugInCore::containingUrl() const { return containingUrl_.load(); }
void TvPlugInCore::setContainingUrl(Value value) { containingUrl_.store(std::move(value)); }

Value TvPlugInCore::bundleInfoDictionary() const { return bundleInfoDictionary_.load(); }
void TvPlugInCore::setBundleInfoDictionary(Value value) { bundleInfoDictionary_.store(std::move(value)); }

Value TvPlugInCore::entitlements() const { return entitlements_.load(); }
void TvPlugInCore::setEntitlements(Value value) { entitlements_.store(std::move(value)); }

std::uint64_t TvPlugInCore::hubProtocolVersion() const { return hubProtocolVersion_.load(std::memory_order_relaxed); }
void TvPlugInCore::setHubProtocolVersion(std::uint64_t value)
{
    hubProtocolVersion_.store(value, std::memory_order_relaxed);
}

std::optional<std::string> TvPlugInCore::localizedName() const { return stringOf(localizedName_.load()); }
void TvPlugInCore::setLocalizedName(std::optional<std::string> value) { localizedName_.store(optionalString(value)); }

std::optional<std::string> TvPlugInCore::localizedShortName() const { return stringOf(localizedShortName_.load()); }
void TvPlugInCore::setLocalizedShortName(std::optional<std::string> value)
{
    localizedShortName_.store(optionalString(value));
}

std::optional<std::string> TvPlugInCore::localizedContainingName() const
{
    return stringOf(localizedContainingName_.load());
}
void TvPlugInCore::setLocalizedContainingName(std::optional<std::string> value)
{
    localizedContainingName_.store(optionalString(value));
}

Value TvPlugInCore::annotations() const { return annotations_.load(); }
void TvPlugInCore::setAnnotations(Value value) { annotations_.store(std::move(value)); }

std::int64_t TvPlugInCore::lastModified() const { return lastModified_.load(std::memory_order_relaxed); }
void TvPlugInCore::setLastModified(std::int64_t value) { lastModified_.store(value, std::memory_order_relaxed); }

std::optional<Uuid> TvPlugInCore::uuid() const
{
    Value v = uuid_.load();
    if (auto u = v.asUuid())
        return *u;
    return std::nullopt;
}
void TvPlugInCore::setUuid(std::optional<Uuid> value) { uuid_.store(value ? Value(*value) : Value()); }

std::optional<Bytes> TvPlugInCore::sighash() const
{
    Value v = sighash_.load();
    if (auto b = v.asData())
        return *b;
    return std::nullopt;
}
void TvPlugInCore::setSighash(std::optional<Bytes> value)
{
    sighash_.store(value ? Value::data(std::move(*value)) : Value());
}

std::optional<std::string> TvPlugInCore::requirement() const { return stringOf(requirement_.load()); }
void TvPlugInCore::setRequirement(std::optional<std::string> value) { requirement_.store(optionalString(value)); }

std::shared_ptr<ConnectionInterface> TvPlugInCore::augmentInterface(const ConnectionInterface&) const
{
    return nullptr;
}

} // namespace tv
