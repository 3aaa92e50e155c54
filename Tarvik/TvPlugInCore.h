// TvPlugInCore: the record of one installed plug-in, shared by the daemon
// and the host processes that use the client library.
//
// A record holds the plug-in's identity (a UUID and a bundle identifier),
// where it lives (its bundle and the containing application), its two
// dictionaries (the bundle information dictionary and, inside it under
// "KoExtension", the plug-in dictionary), its signing facts, the user's
// annotations, its localized names, and values derived from the dictionaries.
//
// Lookups. Everything derived from the dictionaries goes through four
// virtual lookups: bundleInfoDictionary(), infoKey(), pluginKey() and
// attribute(). The base answers them from the record's own dictionaries; a
// subclass that answers them from elsewhere (the daemon's registry-backed
// record) changes every derived property, the diagnosis and the exported
// form with them, because derived values are computed on every read and
// never cached.
//
// Construction. Initialisers that can fail are static factories returning a
// null pointer: initWithNameUrlBundleInfoInfoUuid() and initWithForm(). Their
// steps are the protected virtuals constructWithNameUrlBundleInfoInfoUuid()
// and constructWithForm(), run on a record made by the protected default
// constructor, so a subclass's own factory reuses (or replaces) them:
//
//   std::shared_ptr<Sub> r(new Sub());
//   if (!r->constructWithNameUrlBundleInfoInfoUuid(...)) return nullptr;
//
// Invariant: a record returned by a factory has an identifier, a file URL
// and a uuid. Identity is the uuid alone (isEqual(), hash(),
// TvPlugInCoreHash/TvPlugInCoreEqual for hashed sets of records of any
// subclass). Asking a record without uuid for its identity is an
// internal-consistency failure (TvInternalInconsistency).
//
// Values. Absent values are null Values or empty optionals. URLs are Values
// of kind Url (Value::fileURL). Dictionaries are Value dictionaries.
//
// Thread-safety: a record has no lock of its own. Every stored property is
// read and written whole and atomically, so records may be shared between
// threads once built; operations that derive a new value from an old one
// (setAnnotationValue(), canonicalize(), resolveSDK()) are not atomic as a
// whole and belong to the record's owner. Log lines go to the "ops" category.
#pragma once

#include "base/AtomicValue.h"
#include "base/Date.h"
#include "base/Result.h"
#include "base/TvError.h"
#include "base/Uuid.h"
#include "base/Value.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace tv {

namespace platform {
class ExtensionSdkRegistry;
}

// Bundle information and plug-in dictionary keys the model reads.
inline constexpr const char* kKoExtensionKey = "KoExtension";
inline constexpr const char* kTarvikInfoKey = "Tarvik";
inline constexpr const char* kKoExtensionAttributesKey = "KoExtensionAttributes";
inline constexpr const char* kKoExtensionVersionKey = "KoExtensionVersion";
inline constexpr const char* kKoExtensionProtocolKey = "KoExtensionProtocol";
inline constexpr const char* kKoExtensionPointIdentifierKey = "KoExtensionPointIdentifier";
inline constexpr const char* kPrincipalClassKey = "PrincipalClass";
inline constexpr const char* kEmbeddedProtocolKey = "EmbeddedProtocol";
inline constexpr const char* kEmbeddedCodeKey = "EmbeddedCode";
inline constexpr const char* kDedicatedKey = "Dedicated";
inline constexpr const char* kPassProxyKey = "PassProxy";
inline constexpr const char* kMultipleKey = "Multiple";
inline constexpr const char* kCleanTimeoutKey = "CleanTimeout";
inline constexpr const char* kSharedKey = "Shared";
inline constexpr const char* kBundleShortVersionStringKey = "KbBundleShortVersionString";
inline constexpr const char* kBundleInfoVlistUrlKey = "KbBundleInfoVlistURL";
// The protocol and principal of an app extension that names none.
inline constexpr const char* kKoObject = "KoObject";
inline constexpr const char* kAppExtensionSuffix = ".vext";

// Code of the errors the plug-in model reports for a mis-configured plug-in
// and for a record that cannot be exported.
inline constexpr std::int64_t kMisconfiguredPlugInErrorCode = 12;

class ConnectionInterface;

class TvPlugInCore {
public:
    virtual ~TvPlugInCore();
    TvPlugInCore(const TvPlugInCore&) = delete;
    TvPlugInCore& operator=(const TvPlugInCore&) = delete;

    // --- Construction -------------------------------------------------------

    // A record from a bundle name (identifier), bundle file URL, bundle
    // information dictionary, plug-in dictionary and uuid, or null when setup
    // fails (see setupWithNameUrlBundleInfoInfoUuid). With bundle information
    // the plug-in dictionary is its "KoExtension" and `info` is ignored;
    // without, `info` becomes the plug-in dictionary.
    static std::shared_ptr<TvPlugInCore> initWithNameUrlBundleInfoInfoUuid(const std::optional<std::string>& name,
                                                                           const Value& url, const Value& bundleInfo,
                                                                           const Value& info,
                                                                           const std::optional<Uuid>& uuid);
    // A record rebuilt from a plug-in form (see setupWithForm), or null.
    static std::shared_ptr<TvPlugInCore> initWithForm(const Value& form);

    // Fails (false) without a url (kind Url; silently), without a name
    // (error "missing identifier in plug-in at %@"), or with bundle
    // information that setDictionaries() refuses after
    // normalizeInfoDictionary() (default level "malformed plug-in dictionary
    // in plug-in %@ at %@: %@"). Otherwise sets identifier, url and uuid (a
    // fresh random one when none is given). Does not read `info`.
    virtual bool setupWithNameUrlBundleInfoInfoUuid(const std::optional<std::string>& name, const Value& url,
                                                    const Value& bundleInfo, const Value& info,
                                                    const std::optional<Uuid>& uuid);
    // Stores `dictionary` as the bundle information and its "KoExtension" as
    // the plug-in dictionary. False when `dictionary` is not a dictionary
    // (nothing stored) or its "KoExtension" is not one (the bundle
    // information is stored, the plug-in dictionary keeps its old value).
    // A "Multiple" key is logged as obsolete and otherwise ignored.
    virtual bool setDictionaries(const Value& dictionary);
    // Hook to rewrite bundle information before it is stored; the base
    // returns its argument.
    virtual Value normalizeInfoDictionary(const Value& dictionary);
    // Sets the record up from a plug-in form: setup with the form's "path",
    // "identifier", "bundleInfo" and "uuid" (the form's "info" is not used;
    // an invalid or absent "uuid" gives a fresh one), then the remaining
    // properties from their form keys. False exactly when setup fails.
    virtual bool setupWithForm(const Value& form);

    // --- Identity -----------------------------------------------------------

    // True when `other` is a record (of any subclass) with the same uuid;
    // false for null or a record without uuid. REQUIRES: this record has a
    // uuid (else TvInternalInconsistency).
    virtual bool isEqual(const TvPlugInCore* other) const;
    // A function of the uuid's 16 bytes. REQUIRES: this record has a uuid.
    virtual std::uint64_t hash() const;

    // --- SDK defaults -------------------------------------------------------

    // Merges the SDK registered for sdkSpec() under the bundle information,
    // re-derives the plug-in dictionary and canonicalizes. REQUIRES: the
    // record holds bundle information (else TvInternalInconsistency "cannot
    // resolve SDK without materialized Info.vlist"). A non-string extension
    // point identifier is logged ("invalid SDK key:%{public}@") and the
    // record left untouched.
    virtual void resolveSDK();
    // Makes sure the plug-in dictionary holds an attributes dictionary with a
    // "KoExtensionVersion" (else "KbBundleShortVersionString", else "1").
    // Attributes that are not a dictionary are treated as absent. The bundle
    // information is not touched.
    virtual void canonicalize();
    // `own` with `sdk` merged under it, recursively: own values win except
    // for keys where sdkOverridesKey() is true ("CleanTimeout") and "Shared"
    // (the union, via mergeSharedResourcesInto); dictionaries are merged key
    // by key; keys only the SDK sets are taken from it. Where the SDK holds a
    // dictionary and the plug-in another kind, the plug-in's value stays. A
    // non-dictionary `sdk` gives `own`.
    virtual Value mergeDictionaryInto(const Value& sdk, const Value& own) const;
    virtual bool sdkOverridesKey(std::string_view key) const;
    // The union of two arrays, each element once (own elements first, in
    // their order, then the SDK's new ones). When either is not an array the
    // plug-in's own list is kept.
    virtual Value mergeSharedResourcesInto(const Value& sdkList, const Value& ownList) const;

    // The SDK dictionary registered for `sdkName` in the installed registry,
    // or null (logged: "plug-in sdk \"%{public}@\" not registered"). Nothing
    // is cached. Without an installed registry nothing is registered.
    static Value readSDKDictionary(const std::string& sdkName);
    // The registry readSDKDictionary() asks; installed once at process start.
    // Thread-safe.
    static void setSdkRegistry(std::shared_ptr<platform::ExtensionSdkRegistry> registry);
    static std::shared_ptr<platform::ExtensionSdkRegistry> sdkRegistry();

    // --- Form ---------------------------------------------------------------

    // The plug-in form: a dictionary with "hubProtocolVersion", "path",
    // "systemResident", "identifier", "original-identifier", "version",
    // "bundleInfo" (without "KbBundleInfoVlistURL"), "info", "uuid" (canonical
    // text), "lastmodified", "annotations" (empty when none), and, when
    // present, "entitlements", "containingPath",
    // "localizedContainingDisplayName", "localizedDisplayName",
    // "localizedShortName". The form is a Value dictionary: its entries have
    // no order. Values come from the record's own (possibly overridden)
    // getters. Fails with code 12 when an unconditional entry has no value.
    virtual Result<Value> exportForm() const;
    // Replaces the annotations by the form's "annotations" (absent when the
    // form has none). Nothing else changes.
    virtual void updateFromForm(const Value& form);
    // Replaces the annotations by a copy with `key` set to `value` (removed
    // when `value` is null). A record without annotations starts from an
    // empty dictionary. Readers holding the old dictionary keep it.
    virtual void setAnnotationValue(std::string_view key, const Value& value);

    // --- Diagnosis ----------------------------------------------------------

    // The first configuration problem (code 12, domain "Tarvik"), or none.
    // Reports only; never logs.
    virtual MaybeError diagnose() const;
    // True for the old configuration generation ("Tarvik" in the bundle
    // information), false for the current one ("KoExtension", which wins when
    // both are present). REQUIRES: one of them is present (else
    // TvInternalInconsistency "unknown plug-in configuration style").
    virtual bool oldStyle() const;

    // --- Derived properties (computed on every read) ------------------------

    virtual std::string path() const;                     // path of url() without trailing "/"; "" without one
    virtual std::optional<std::string> containingPath() const;
    virtual Value attributes() const;                     // pluginKey "KoExtensionAttributes"
    virtual Value version() const;                        // attribute "KoExtensionVersion"
    virtual Value protocolSpec() const;                   // "KoExtensionProtocol", app extensions "KoObject"
    virtual Value principalSpec() const;                  // "PrincipalClass", app extensions "KoObject"
    virtual Value sdkSpec() const;                        // "KoExtensionPointIdentifier"
    virtual Value embeddedCodePath() const;               // always null
    virtual Value embeddedProtocolSpec() const;           // "EmbeddedProtocol", else protocolSpec()
    virtual bool isAppExtension() const;                  // path() ends with ".vext" (case-sensitive)
    virtual bool isMultiplexed() const;                   // always false
    virtual bool isHybrid() const;                        // "EmbeddedCode" present
    virtual bool isDedicated() const;                     // boolean reading of "Dedicated"
    virtual bool isData() const;                          // protocolSpec() is the string "#Data"
    virtual Date timestamp() const;                       // lastModified() seconds after 1970

    // --- Lookups ------------------------------------------------------------

    virtual Value infoKey(std::string_view key) const;   // bundleInfoDictionary()[key]
    virtual Value pluginKey(std::string_view key) const; // plugInDictionary()[key]
    virtual Value attribute(std::string_view key) const; // attributes()[key]

    // A hook for subclasses that type a connection to the plug-in: given the
    // interface a host is about to use, an augmented one, or null to use it
    // as it is. The base record augments nothing.
    virtual std::shared_ptr<ConnectionInterface> augmentInterface(const ConnectionInterface& interface) const;

    // --- Stored properties --------------------------------------------------

    virtual bool onSystemVolume() const;
    virtual void setOnSystemVolume(bool value);
    virtual Value plugInDictionary() const;
    virtual void setPlugInDictionary(Value value);
    virtual std::optional<std::string> identifier() const;
    virtual void setIdentifier(std::optional<std::string> value);
    virtual std::optional<std::string> originalIdentifier() const;
    virtual void setOriginalIdentifier(std::optional<std::string> value);
    virtual Value url() const;
    virtual void setUrl(Value value);
    virtual Value containingUrl() const;
    virtual void setContainingUrl(Value value);
    virtual Value bundleInfoDictionary() const;
    virtual void setBundleInfoDictionary(Value value);
    virtual Value entitlements() const;
    virtual void setEntitlements(Value value);
    virtual std::uint64_t hubProtocolVersion() const;
    virtual void setHubProtocolVersion(std::uint64_t value);
    virtual std::optional<std::string> localizedName() const;
    virtual void setLocalizedName(std::optional<std::string> value);
    virtual std::optional<std::string> localizedShortName() const;
    virtual void setLocalizedShortName(std::optional<std::string> value);
    virtual std::optional<std::string> localizedContainingName() const;
    virtual void setLocalizedContainingName(std::optional<std::string> value);
    virtual Value annotations() const;
    virtual void setAnnotations(Value value);
    virtual std::int64_t lastModified() const;
    virtual void setLastModified(std::int64_t value);
    virtual std::optional<Uuid> uuid() const;
    virtual void setUuid(std::optional<Uuid> value);
    virtual std::optional<Bytes> sighash() const;
    virtual void setSighash(std::optional<Bytes> value);
    virtual std::optional<std::string> requirement() const;
    virtual void setRequirement(std::optional<std::string> value);

protected:
    // An empty record; only the first step of construction.
    TvPlugInCore();

    // The replaceable steps of initWithNameUrlBundleInfoInfoUuid(): setup,
    // then `info` as plug-in dictionary when none was set.
    virtual bool constructWithNameUrlBundleInfoInfoUuid(const std::optional<std::string>& name, const Value& url,
                                                        const Value& bundleInfo, const Value& info,
                                                        const std::optional<Uuid>& uuid);
    // The replaceable step of initWithForm(): setupWithForm().
    virtual bool constructWithForm(const Value& form);

    // How resolveSDK() asks "the record's class" for an SDK dictionary: the
    // base calls readSDKDictionary(); a subclass with its own class operation
    // overrides this to call it.
    virtual Value lookUpSDKDictionary(const std::string& sdkName) const;

private:
    // The uuid that identity rests on; raises when there is none.
    Uuid identityUuid() const;

    std::atomic<bool> onSystemVolume_{false};
    std::atomic<std::uint64_t> hubProtocolVersion_{0};
    std::atomic<std::int64_t> lastModified_{0};
    AtomicValue plugInDictionary_;
    AtomicValue identifier_;
    AtomicValue originalIdentifier_;
    AtomicValue url_;
    AtomicValue containingUrl_;
    AtomicValue bundleInfoDictionary_;
    AtomicValue entitlements_;
    AtomicValue localizedName_;
    AtomicValue localizedShortName_;
    AtomicValue localizedContainingName_;
    AtomicValue annotations_;
    AtomicValue uuid_;
    AtomicValue sighash_;
    AtomicValue requirement_;
};

// Identity functors for hashed containers of records (of any subclass):
// records are the same element when their uuids are equal, whichever objects
// they are. Null pointers are equal to each other only.
struct TvPlugInCoreHash {
    template <class T>
    std::size_t operator()(const std::shared_ptr<T>& record) const
    {
        return record ? static_cast<std::size_t>(record->hash()) : 0;
    }
};

struct TvPlugInCoreEqual {
    template <class A, class B>
    bool operator()(const std::shared_ptr<A>& a, const std::shared_ptr<B>& b) const
    {
        if (!a || !b)
            return !a && !b;
        return a->isEqual(b.get());
    }
};

using TvPlugInCoreSet = std::unordered_set<std::shared_ptr<TvPlugInCore>, TvPlugInCoreHash, TvPlugInCoreEqual>;

} // namespace tv
