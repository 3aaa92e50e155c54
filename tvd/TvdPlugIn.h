// TvdPlugIn: the daemon's record of one installed plug-in, built from the
// application registry's record of it (its `rsproxy`).
//
// It answers every bundle-information question by asking the registry record
// afresh (infoKey(), pluginKey(), attribute(), bundleInfoDictionary()), so
// everything the base record derives from those lookups (classification, the
// diagnosis, the exported form) rests on the registry's data. The registry
// record itself never changes (a changed plug-in is a new registry record),
// so the facts a match asks of every candidate ("Dedicated", the host
// entitlement it demands, its extension point) are read from it once, when
// the record is built.
// On top of the base record it adds the plug-in's entitlements, localized
// names fetched from the registry on first read, two daemon-only consistency
// rules, the key of its stored annotation and the resource grants added to
// forms sent to hosts.
//
// Only the registry database (TvDatabase) builds records, and only from
// registry records; a record that exists has a bundle URL, an identifier and
// has passed diagnose().
//
// Thread-safety: records are shared between the database queue and the
// service queue. rsproxy and the fields set during construction are written
// before the record is published; the localized names are atomic and filled
// without a lock (two first readers may both ask the registry, both store the
// same answer).
#pragma once

#include "Tarvik/TvPlugInCore.h"
#include "base/EncodedDictionary.h"
#include "platform/registry/RegistryPlugInRecord.h"

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace tv {

namespace platform {
class PrivacyConsentService;
class ProcessStateService;
class SandboxService;
class TypeIdentifierService;
}

class TvdVynClient;

// The entitlement a plug-in uses to take over the stored annotation (and the
// place in match answers) of the plug-in whose identifier it names.
inline constexpr const char* kReplacePlugInEntitlement = "com.veltra.developer.replace-plugin";

// True when an entitlement value counts as granted: present and not equal to
// false (a boolean false or any number equal to 0).
bool entitlementIsGranted(const Value& value);

class TvdPlugIn : public TvPlugInCore {
public:
    // A record built from the registry record, or null: when the registry
    // record has no bundle URL (silently), when base setup fails, or when
    // diagnose() fails ("ignoring mis-configured plug-in at %@: %{public}@").
    static std::shared_ptr<TvdPlugIn> initWithRSData(platform::RegistryPlugInRecordPtr record);

    // Registry-backed lookups, asked afresh on every call.
    Value infoKey(std::string_view key) const override;
    Value pluginKey(std::string_view key) const override;
    Value attribute(std::string_view key) const override;
    Value bundleInfoDictionary() const override;

    // Filled from the registry on first read; an absent answer is not
    // remembered, so the next read asks again. The setters replace the
    // cached value.
    std::optional<std::string> localizedName() const override;
    std::optional<std::string> localizedShortName() const override;
    std::optional<std::string> localizedContainingName() const override;

    // The boolean reading of "Dedicated", taken from the registry record
    // when the record is built: the registry record never changes, and a
    // match asks it of every candidate.
    bool isDedicated() const override;

    Value valueForEntitlement(std::string_view name) const;
    bool hasEntitlement(std::string_view name) const;

    // The key of this plug-in's stored annotation: its replace-plugin
    // entitlement when that is a string, else its identifier. Kept with the
    // record, made again whenever either of them is set.
    std::string annotationKey() const;
    // Its replace-plugin entitlement (valueForEntitlement()), kept likewise.
    Value replacedIdentifiers() const;
    void setIdentifier(std::optional<std::string> value) override;
    void setEntitlements(Value value) override;

    // The base diagnosis, then: a code plug-in needs a data container, and a
    // plug-in outside any application must lie below the system volume root.
    MaybeError diagnose() const override;

    // Adds "extensions" (resource name to read-only token) to a form about to
    // be sent to a host: for an app extension the bundle itself ("."),
    // otherwise the plug-in dictionary's "Shared" list; nothing when there is
    // no list.
    void augmentForm(Value& form) const;

    // exportForm(), built on the first call and kept with the record; a
    // failed export is not kept. The record answers from the registry record
    // it was built from, which never changes (a changed plug-in is a new
    // registry record), so the form cannot go stale.
    Result<Value> exportFormOnce() const;
    // `exported` (this record's exportFormOnce()) with augmentForm()'s
    // grants, kept with the record for the process-wide sandbox service that
    // issued them: a match costs no file-system walk and no signing per
    // plug-in. Not kept while a resource could not be granted, so that it is
    // tried (and logged) again next time. The form is given in `form`; the
    // result is its encoding as an element of the "matches" array (the
    // message encoding of whole values), kept with the form, so that a match
    // copies each form's bytes instead of encoding it again. Null when the
    // form cannot be encoded there. `sandbox` is platform::sandboxService(),
    // which a caller asking for many records reads once.
    std::shared_ptr<const EncodedDictionary> encodedHostForm(const Value& exported, Value& form,
                                                             const std::shared_ptr<platform::SandboxService>& sandbox) const;
    // The options of that encoding: URLs allowed, one level below the array.
    static const ValueCodecOptions& hostFormEncoding();
    // `dictionary` without the keys that begin with "DT".
    static Value prunedInfoDictionaryFor(const Value& dictionary);
    // Read-only tokens for resources relative to the bundle ("." is the
    // bundle): a string or an array of strings; other elements are skipped.
    // A resource whose token cannot be issued is logged and left out. The
    // bundle itself is granted at the canonical path the registry holds for
    // it (url()), without resolving it again; the other resources are
    // resolved (symbolic links followed) when their token is issued.
    Value issueResourceExtensions(const Value& resources) const;

    // Match rules (docs/match-rules.md), evaluated with the process-wide
    // TvdMatchRules. Never fail; an unusable rule or pattern does not match.
    // Must not run on the database queue: "KoUserElection" reads the
    // annotation there.
    bool match(const Value& rules) const;
    // match() with type conformance answered by `types` (TvdMatchRules).
    bool match(const Value& rules, platform::TypeIdentifierService* types) const;
    bool matchKeyPattern(std::string_view key, const Value& pattern) const;
    bool matchValuePatterns(std::string_view value, const Value& patterns) const;
    bool matchValuePattern(std::string_view value, std::string_view pattern) const;
    bool matchDictionaryPattern(const Value& value, const Value& pattern) const;

    // --- Host rights --------------------------------------------------------

    // Whether `client` may use this plug-in: none when it may, else the
    // reason. First the host's own restriction (its entitlement
    // "com.veltra.developer.tarvik.allowedplugins": match rules this plug-in
    // must satisfy), then the plug-in's demand ("KoExtensionHostEntitlement":
    // an entitlement every host must hold). Evaluates match rules, so it must
    // not run on the database queue.
    std::optional<std::string> allowForClient(const TvdVynClient& client) const;

    // Registers this plug-in with the job manager as a service that the
    // host process of `client` may use: its environment (data container
    // home and temporary directory), its sandbox profile (sandboxProfile())
    // and its own "VynService" description. None on success; an error with
    // code 4 when the plug-in has no executable or the job manager refuses.
    MaybeError enableForClient(const TvdVynClient& client) const;
    // The sandbox profile name the job manager applies to this plug-in's
    // process, chosen by extension point (docs/enabling.md).
    std::string sandboxProfile() const;

    // The privacy services granted to the containing application (a plug-in
    // has no grants of its own): empty for a plug-in outside applications,
    // and after every failure (logged at info level).
    std::set<std::string> allowedPCSServices() const;

    // The process-wide privacy-consent service that allowedPCSServices()
    // asks (null: none, every answer is empty). Set once at process start.
    static void setPrivacyConsentService(std::shared_ptr<platform::PrivacyConsentService> service);
    static std::shared_ptr<platform::PrivacyConsentService> privacyConsentService();

    const platform::RegistryPlugInRecordPtr& rsproxy() const { return rsproxy_; }

    // Whether an instance of this plug-in is running, asked of the
    // process-state service for its "KbBundleIdentifier": the busy
    // description of the first busy instance (a dictionary holding the
    // instance's bundle identifier under kJobExtensionBundleIdentifierKey),
    // or null when none is. An instance reported without a bundle identifier
    // is logged and skipped. A plug-in without a bundle identifier, or with
    // no service set, is not busy; when the service cannot tell, the plug-in
    // counts as busy (logged), since a hold must not be placed on a plug-in
    // that may be in use. Runs on the caller's thread.
    Value checkBusy() const;

    // The process-state service that checkBusy() asks. Set once at process
    // start.
    static void setProcessStateService(std::shared_ptr<platform::ProcessStateService> service);

    // The root below which plug-ins outside applications must lie ("/System"
    // unless the platform configures another). Set once at process start.
    static void setSystemVolumeRoot(std::string root);
    static std::string systemVolumeRoot();

protected:
    TvdPlugIn() = default;

private:
    struct HostFormCache;
    // The kept host form for the current sandbox service, or a fresh one
    // that is not kept (a resource could not be granted).
    std::shared_ptr<const HostFormCache> hostFormCache(const Value& exported,
                                                      const std::shared_ptr<platform::SandboxService>& sandbox) const;
    // issueResourceExtensions() through `sandbox` (null: none, every grant
    // fails with ENOSYS); `complete` is cleared when a resource was left out.
    Value grantResources(const Value& resources, platform::SandboxService* sandbox, bool& complete) const;
    void remakeAnnotationKey();
    // The resources augmentForm() grants: null when none.
    Value sharedResources() const;

    platform::RegistryPlugInRecordPtr rsproxy_;
    // Facts of the registry record read once when the record is built.
    bool dedicated_ = false;
    Value hostEntitlement_; // "KoExtensionHostEntitlement"
    Value extensionPoint_;  // "KoExtensionPointIdentifier" in the attributes scope
    struct Replacement {
        Value replaced; // the replace-plugin entitlement
        std::string annotationKey;
    };
    std::atomic<std::shared_ptr<const Replacement>> replacement_;
    mutable std::atomic<std::shared_ptr<const Value>> exported_;
    mutable std::atomic<std::shared_ptr<const HostFormCache>> hostForm_;
};

} // namespace tv
