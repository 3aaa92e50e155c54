#include "tvd/TvdPlugIn.h"

#include "Tarvik/TvBundle.h"
#include "Tarvik/TvFileReadGrant.h"
#include "Tarvik/TvLog.h"
#include "Tarvik/TvMessageConversion.h"
#include "platform/privacy/PrivacyConsentService.h"
#include "tvd/TvdMatchPattern.h"
#include "tvd/TvdVynClient.h"
#include "platform/jobs/JobManager.h"
#include "platform/processstate/ProcessStateService.h"
#include "platform/security/SandboxService.h"
#include "tvd/TvdMatchPattern.h"
#include "tvd/TvdMatchRules.h"
#include "tvd/TvdServer.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace tv {

namespace {

constexpr const char* kHubProtocolVersionKey = "HubProtocolVersion";

std::mutex gSystemRootMutex;
std::string gSystemRoot = "/System";
std::shared_ptr<platform::PrivacyConsentService> gPrivacyConsent; // guarded by gSystemRootMutex

// A host restricts itself to the plug-ins that satisfy these match rules.
constexpr const char* kHostRestrictionEntitlement = "com.veltra.developer.tarvik.allowedplugins";
// The plug-in dictionary names an entitlement that its hosts must hold.
constexpr const char* kHostEntitlementKey = "KoExtensionHostEntitlement";

std::atomic<std::shared_ptr<platform::ProcessStateService>> gProcessState;

// `root` without trailing "/" (the file-system root stays "/").
std::string withoutTrailingSlash(std::string root)
{
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    return root;
}

} // namespace

bool entitlementIsGranted(const Value& value)
{
    return !value.isNull() && !valueEqualsFalse(value);
}

void TvdPlugIn::setSystemVolumeRoot(std::string root)
{
    std::lock_guard lock(gSystemRootMutex);
    gSystemRoot = withoutTrailingSlash(std::move(root));
}

std::string TvdPlugIn::systemVolumeRoot()
{
    std::lock_guard lock(gSystemRootMutex);
    return gSystemRoot;
}

std::shared_ptr<TvdPlugIn> TvdPlugIn::initWithRSData(platform::RegistryPlugInRecordPtr record)
{
    if (!record || record->bundleUrl.isNull())
        return nullptr;
    std::shared_ptr<TvdPlugIn> plugIn(new TvdPlugIn());
    // rsproxy first: setup already reads the lookups (through normalize and
    // the diagnosis) and they must see the registry's data.
    plugIn->rsproxy_ = record;
    plugIn->dedicated_ = record->plugInValue(kDedicatedKey).boolValue();
    plugIn->hostEntitlement_ = record->plugInValue(kHostEntitlementKey);
    plugIn->extensionPoint_ = record->attributeValue(kKoExtensionPointIdentifierKey);
    if (!plugIn->constructWithNameUrlBundleInfoInfoUuid(record->plugInIdentifier, record->bundleUrl, Value(),
                                                        record->plugInDictionary, record->uuid))
        return nullptr;
    plugIn->setEntitlements(record->entitlements);
    plugIn->setOriginalIdentifier(record->originalIdentifier);
    plugIn->setLastModified(record->registrationDate.microseconds() / 1000000); // toward zero
    plugIn->setOnSystemVolume(record->onSystemVolume);

    // A number is the plug-in's declared generation, whatever its value; any
    // other kind counts as not declared.
    const Value& hub = record->plugInValue(kHubProtocolVersionKey);
    if (hub.isNumber())
        plugIn->setHubProtocolVersion(static_cast<std::uint64_t>(hub.asUInt() ? *hub.asUInt() : hub.integerValue()));
    else
        plugIn->setHubProtocolVersion(plugIn->infoKey(kTarvikInfoKey).isNull() ? 2 : 1);

    if (record->containingApplication)
        plugIn->setContainingUrl(record->containingApplication->bundleUrl());

    if (auto error = plugIn->diagnose()) {
        TvLog::ops().info("ignoring mis-configured plug-in at %@: %{public}@", record->bundleUrl.urlPath(),
                          error->localizedDescription());
        return nullptr;
    }
    return plugIn;
}

Value TvdPlugIn::infoKey(std::string_view key) const
{
    return rsproxy_ ? rsproxy_->infoValue(key) : Value();
}

Value TvdPlugIn::pluginKey(std::string_view key) const
{
    return rsproxy_ ? rsproxy_->plugInValue(key) : Value();
}

Value TvdPlugIn::attribute(std::string_view key) const
{
    if (key == kKoExtensionPointIdentifierKey) // every match's rules ask it of every candidate
        return extensionPoint_;
    return rsproxy_ ? rsproxy_->attributeValue(key) : Value();
}

bool TvdPlugIn::isDedicated() const
{
    return dedicated_;
}

Value TvdPlugIn::bundleInfoDictionary() const
{
    return rsproxy_ ? rsproxy_->infoDictionary : Value();
}

std::optional<std::string> TvdPlugIn::localizedName() const
{
    if (auto cached = TvPlugInCore::localizedName())
        return cached;
    auto answer = rsproxy_ ? rsproxy_->localizedName : std::nullopt;
    const_cast<TvdPlugIn*>(this)->setLocalizedName(answer);
    return answer;
}

std::optional<std::string> TvdPlugIn::localizedShortName() const
{
    if (auto cached = TvPlugInCore::localizedShortName())
        return cached;
    auto answer = rsproxy_ ? rsproxy_->localizedShortName : std::nullopt;
    const_cast<TvdPlugIn*>(this)->setLocalizedShortName(answer);
    return answer;
}

std::optional<std::string> TvdPlugIn::localizedContainingName() const
{
    if (auto cached = TvPlugInCore::localizedContainingName())
        return cached;
    std::optional<std::string> answer;
    if (rsproxy_ && rsproxy_->containingApplication)
        answer = rsproxy_->containingApplication->localizedName;
    const_cast<TvdPlugIn*>(this)->setLocalizedContainingName(answer);
    return answer;
}

Value TvdPlugIn::valueForEntitlement(std::string_view name) const
{
    return entitlements()[name];
}

bool TvdPlugIn::hasEntitlement(std::string_view name) const
{
    return entitlementIsGranted(valueForEntitlement(name));
}

std::string TvdPlugIn::annotationKey() const
{
    auto kept = replacement_.load();
    return kept ? kept->annotationKey : std::string();
}

Value TvdPlugIn::replacedIdentifiers() const
{
    auto kept = replacement_.load();
    return kept ? kept->replaced : Value();
}

void TvdPlugIn::setIdentifier(std::optional<std::string> value)
{
    TvPlugInCore::setIdentifier(std::move(value));
    remakeAnnotationKey();
}

void TvdPlugIn::setEntitlements(Value value)
{
    TvPlugInCore::setEntitlements(std::move(value));
    remakeAnnotationKey();
}

void TvdPlugIn::remakeAnnotationKey()
{
    Value replaced = valueForEntitlement(kReplacePlugInEntitlement);
    const std::string* named = replaced.asString();
    replacement_.store(std::make_shared<const Replacement>(
        Replacement{replaced, named ? *named : identifier().value_or(std::string())}));
}

MaybeError TvdPlugIn::diagnose() const
{
    if (auto error = TvPlugInCore::diagnose())
        return error;
    if (!isData() && (!rsproxy_ || rsproxy_->dataContainerUrl().isNull()))
        return makeError(kMisconfiguredPlugInErrorCode, "this plug-in has no sandbox data container");
    if (containingUrl().isNull()) {
        std::string root = systemVolumeRoot();
        std::string prefix = root == "/" ? root : root + "/";
        if (path().compare(0, prefix.size(), prefix) != 0)
            return makeError(kMisconfiguredPlugInErrorCode, "plug-ins outside containing apps must be in /System");
    }
    return std::nullopt;
}

// The grants of a host form and the sandbox service that issued them.
struct TvdPlugIn::HostFormCache {
    std::shared_ptr<platform::SandboxService> issuer;
    Value form;
    std::shared_ptr<const EncodedDictionary> encoded; // null: cannot be encoded
};

Value TvdPlugIn::sharedResources() const
{
    if (isAppExtension())
        return Value(Array{Value(".")});
    return pluginKey(kSharedKey);
}

void TvdPlugIn::augmentForm(Value& form) const
{
    Value shared = sharedResources();
    if (shared.isNull())
        return;
    form = form.with("extensions", issueResourceExtensions(shared));
}

Result<Value> TvdPlugIn::exportFormOnce() const
{
    if (auto cached = exported_.load())
        return *cached;
    auto exported = exportForm();
    if (exported.ok())
        exported_.store(std::make_shared<const Value>(*exported));
    return exported;
}

const ValueCodecOptions& TvdPlugIn::hostFormEncoding()
{
    // The array of forms is depth 1 of the message encoding.
    static const ValueCodecOptions options{.allowUrl = true, .maxDepth = ValueCodecOptions{}.maxDepth - 1};
    return options;
}

std::shared_ptr<const TvdPlugIn::HostFormCache> TvdPlugIn::hostFormCache(
    const Value& exported, const std::shared_ptr<platform::SandboxService>& sandbox) const
{
    if (auto cached = hostForm_.load(); cached && cached->issuer == sandbox)
        return cached;
    Value shared = sharedResources();
    bool complete = true;
    Value form = shared.isNull() ? exported : exported.with("extensions", grantResources(shared, sandbox.get(), complete));
    auto encoded = EncodedDictionary::make(form, hostFormEncoding());
    auto made = std::make_shared<const HostFormCache>(HostFormCache{sandbox, std::move(form), std::move(encoded)});
    // A form without grants does not depend on the service; one with grants
    // is kept only when every grant was issued.
    if (complete && (sandbox || shared.isNull()))
        hostForm_.store(made);
    return made;
}

std::shared_ptr<const EncodedDictionary> TvdPlugIn::encodedHostForm(
    const Value& exported, Value& form, const std::shared_ptr<platform::SandboxService>& sandbox) const
{
    auto kept = hostFormCache(exported, sandbox);
    form = kept->form;
    return kept->encoded;
}

Value TvdPlugIn::prunedInfoDictionaryFor(const Value& dictionary)
{
    Dictionary pruned;
    if (auto d = dictionary.asDictionary())
        for (const auto& [key, value] : *d)
            if (key.compare(0, 2, "DT") != 0)
                pruned.emplace(key, value);
    return Value(std::move(pruned));
}

Value TvdPlugIn::issueResourceExtensions(const Value& resources) const
{
    bool complete = true;
    return grantResources(resources, platform::sandboxService().get(), complete);
}

Value TvdPlugIn::grantResources(const Value& resources, platform::SandboxService* sandbox, bool& complete) const
{
    Array list;
    if (resources.isString())
        list.push_back(resources);
    else if (auto a = resources.asArray())
        list = *a;

    Dictionary grants;
    const Value bundle = url();
    const std::string bundlePath = bundle.urlPath();
    for (const Value& element : list) {
        const std::string* name = element.asString();
        if (!name)
            continue;
        const bool whole = *name == ".";
        Value resource = whole ? bundle : Value::fileURL(bundlePath + "/" + *name);
        std::optional<std::string> token;
        if (!sandbox)
            errno = ENOSYS;
        else if (whole)
            token = canonicalFileReadGrant(path(), *sandbox); // the registry's canonical path
        else
            token = fileReadGrant(resource, *sandbox);
        if (token) {
            grants.insert_or_assign(*name, Value(std::move(*token)));
        } else {
            int error = errno;
            complete = false;
            TvLog::ops().info("failed to make extension for %@ in plug-in at %@: %{public}s", resource.urlPath(),
                              path(), std::strerror(error));
        }
    }
    return Value(std::move(grants));
}

// --- Host rights ------------------------------------------------------------

std::string TvdPlugIn::sandboxProfile() const
{
    const std::string* point = pluginKey("KoExtensionPointIdentifier").asString();
    if (!point)
        return "plugin";
    if (*point == "com.veltra.keyboard-service") {
        // The privacy service is asked only for keyboards that want open access.
        if (valueEqualsTrue(attribute("RequestsOpenAccess")) &&
            allowedPCSServices().count(platform::kPrivacyServiceKeyboardNetwork))
            return "plugin";
        return "keyboard";
    }
    if (*point == "com.veltra.flowguard.filter-data")
        return "network-filter";
    if (*point == "com.veltra.peek.extension.preview")
        return "peekd";
    if (*point == "com.veltra.app.non-ui-extension" || *point == "com.veltra.app.non-ui-extension.multiple-instances")
        return "playground-devtools";
    return "plugin";
}

MaybeError TvdPlugIn::enableForClient(const TvdVynClient& client) const
{
    const std::string id = identifier().value_or("(null)");
    const std::string uuidText = uuid() ? uuid()->string() : "(null)";
    const Value version = this->version();

    Dictionary environment;
    const Value container = rsproxy_ ? rsproxy_->dataContainerUrl() : Value();
    if (!container.isNull()) {
        const std::string home = container.filePath();
        environment["HOME"] = Value(home);
        environment["KBFIXED_USER_HOME"] = Value(home);
        environment["TMPDIR"] = Value(home + (home.ends_with('/') ? "tmp" : "/tmp"));
    } else {
        TvLog::ops().debug("no data container for plug-in %@(%@) %{public}@ at %@", id, version, uuidText, path());
    }
    const std::string profile = sandboxProfile();
    if (const char* sdk = std::getenv("TVTEST_SDK"))
        environment["TVTEST_SDK"] = Value(sdk);

    Dictionary service;
    const Value raw = infoKey("VynService");
    if (const Dictionary* own = raw.asDictionary()) {
        TvLog::rs().debug("raw VynService=%@", raw);
        service = *own;
    } else {
        TvLog::ops().info("no VynService for plug-in; database returned %@", raw);
    }
    if (const Dictionary* variables = service["EnvironmentVariables"].asDictionary())
        for (const auto& [name, value] : *variables)
            environment[name] = value;
    service["EnvironmentVariables"] = Value(std::move(environment));
    service["_SandboxProfile"] = Value(profile);
    service["_OmitSandboxParameters"] = Value(true);
    TvLog::ops().info("assigning plug-in %@(%@) %{public}@ to %s sandbox", id, version, uuidText, profile);

    const Value launch{{"VynService", plainValueForVyn(Value(std::move(service)))},
                       {"KbBundlePackageType", Value("VYN!")}};
    TvLog::ops().notice("allowing host %d %@ to use plug-in %@(%@) uuid=%{public}@ at %@", client.pid(), client.path(),
                        id, version, uuidText, url().urlPath());

    auto bundle = TvBundle::initWithURL(url());
    std::optional<std::string> executable = bundle ? bundle->executablePath() : std::nullopt;
    if (!executable) {
        TvLog::ops().error("failed to obtain execPath for plug-in %@(%{public}@) bundle=%@", id, uuidText,
                           bundle ? bundle->path().value_or("(null)") : std::string("(null)"));
        return makeErrorWithFormat(4, "cannot obtain executable path for plug-in %@(%@)", id, uuidText);
    }
    TvLog::ops().debug("activation overlay=%@", launch);

    const auto& jobs = client.server() ? client.server()->platform().jobManager : nullptr;
    const int result = jobs ? jobs->addExternalService(platform::ExternalService{
                                  client.pid(), client.uid(), rsproxy_ ? rsproxy_->bundleIdentifier : id,
                                  rsproxy_ ? rsproxy_->bundleVersion : std::string(), *executable, launch})
                            : ENOSYS;
    if (result != 0) {
        TvLog::ops().error("jobd error %d trying to allow %d %@ to use plug-in %@(%@) uuid=%{public}@ at %@", result,
                           client.pid(), client.path(), id, version, uuidText, path());
        return makeErrorWithFormat(4, "unable to enable plug-in %@(%@)", id, uuidText);
    }
    return std::nullopt;
}

std::optional<std::string> TvdPlugIn::allowForClient(const TvdVynClient& client) const
{
    // An entitlement equal to false is not held: such a host is not restricted.
    Value restriction = client.entitlementValueForKey(kHostRestrictionEntitlement);
    if (entitlementIsGranted(restriction)) {
        if (!restriction.isDictionary())
            return std::string("invalid host restriction entitlement");
        if (!match(restriction))
            return std::string("the host's plug-in entitlement does not allow this plug-in");
    }
    if (const std::string* name = hostEntitlement_.asString()) {
        if (!client.hasEntitlement(*name))
            return formatString("the host does not have the \"%@\" entitlement", *name);
    }
    return std::nullopt;
}

std::set<std::string> TvdPlugIn::allowedPCSServices() const
{
    std::set<std::string> services;
    Value container = containingUrl();
    if (container.isNull())
        return services;
    // A fresh bundle object reads the application's information from disk,
    // so nothing cached stands between the question and the current state.
    auto bundle = TvBundle::initWithURL(container);
    if (!bundle) {
        TvLog::ops().info("failed to create bundle for %@", path());
        return services;
    }
    auto consent = privacyConsentService();
    auto information = consent ? consent->informationForBundle(bundle->bundleIdentifier().value_or(std::string()))
                               : std::nullopt;
    if (!information) {
        TvLog::ops().info("PCSAccessCopyInformationForBundle failed for %@", bundle->path().value_or(std::string()));
        return services;
    }
    for (const auto& grant : *information)
        if (grant.granted.value_or(false))
            services.insert(grant.service);
    return services;
}

void TvdPlugIn::setPrivacyConsentService(std::shared_ptr<platform::PrivacyConsentService> service)
{
    std::lock_guard lock(gSystemRootMutex);
    gPrivacyConsent = std::move(service);
}

std::shared_ptr<platform::PrivacyConsentService> TvdPlugIn::privacyConsentService()
{
    std::lock_guard lock(gSystemRootMutex);
    return gPrivacyConsent;
}

// --- Match rules ------------------------------------------------------------

bool TvdPlugIn::match(const Value& rules) const
{
    return TvdMatchRules::shared()->match(*this, rules);
}

bool TvdPlugIn::match(const Value& rules, platform::TypeIdentifierService* types) const
{
    return TvdMatchRules::shared()->match(*this, rules, types);
}

bool TvdPlugIn::matchKeyPattern(std::string_view key, const Value& pattern) const
{
    return TvdMatchRules::shared()->matchKeyPattern(*this, key, pattern);
}

bool TvdPlugIn::matchValuePatterns(std::string_view value, const Value& patterns) const
{
    return tv::matchValuePatterns(value, patterns, TvdMatchRules::shared()->services().types.get());
}

bool TvdPlugIn::matchValuePattern(std::string_view value, std::string_view pattern) const
{
    return tv::matchValuePattern(value, pattern, TvdMatchRules::shared()->services().types.get());
}

bool TvdPlugIn::matchDictionaryPattern(const Value& value, const Value& pattern) const
{
    return TvdMatchRules::shared()->matchDictionaryPattern(value, pattern);
}

void TvdPlugIn::setProcessStateService(std::shared_ptr<platform::ProcessStateService> service)
{
    gProcessState.store(std::move(service));
}

Value TvdPlugIn::checkBusy() const
{
    const std::string* bundleIdentifier = infoKey("KbBundleIdentifier").asString();
    auto keepd = gProcessState.load();
    if (!bundleIdentifier || !keepd)
        return Value();
    std::string uuidText = uuid() ? uuid()->string() : std::string();
    auto instances = keepd->busyExtensionInstances({*bundleIdentifier});
    if (!instances.ok()) {
        TvLog::ops().error("unable to learn whether plug-in %@/%{public}@ is busy: %{public}@",
                           identifier().value_or(""), uuidText, instances.error().localizedDescription());
        return Value{{platform::kJobExtensionBundleIdentifierKey, *bundleIdentifier}};
    }
    for (const Value& instance : *instances) {
        if (const std::string* busy = instance[platform::ProcessStateService::kInstanceBundleIdentifierKey].asString())
            return Value{{platform::kJobExtensionBundleIdentifierKey, *busy}};
        TvLog::ops().error("keepd reported incomplete bundle for plug-in %@/%{public}@", identifier().value_or(""),
                           uuidText);
    }
    return Value();
}

} // namespace tv
