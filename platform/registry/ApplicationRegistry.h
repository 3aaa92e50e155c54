// ApplicationRegistry: the installed applications and plug-ins of the
// system, with a stable UUID per installed plug-in.
//
// The registry knows applications ("*.app" bundles) under the configured
// application roots, the plug-ins ("*.vext" bundles) in each application's
// "PlugIns" directory and in the system plug-ins directory, and plug-in
// bundles registered explicitly by path. What it knows survives restarts; a
// plug-in keeps its UUID while its bundle stays at the same path with the
// same identifier and version.
//
// Records are immutable snapshots (RegistryPlugInRecord,
// RegistryApplicationRecord); a lookup returns the record as the registry
// knows it at that moment, and a later change produces new records instead
// of altering handed-out ones.
//
// Paths: every operation that takes a bundle location accepts an absolute
// path or a "file://" URL text. Locations are compared in canonical form
// (symbolic links resolved, no trailing "/").
//
// Observers: pluginsWillUninstall() is called with the records that left
// (as they were), pluginsDidInstall() with the new records, which lookups
// already find. A plug-in whose identifier or version changed at the same
// path is an uninstall of the old record followed by an install of the new
// one; so is a plug-in whose facts changed in place (information,
// entitlements, containing application), under the same UUID, so that a
// cache keyed by UUID drops it. Callbacks arrive after the change, on the
// registry's own callback thread, one at a time and in the order of the
// changes, with no registry lock held: a callback may look things up, wait
// for a thread that calls the registry, and even change the registry (the
// change is announced after the current one). Observers are held weakly:
// one that has been destroyed is skipped.
//
// Record scopes (RegistryPlugInRecord::infoValue, plugInValue,
// attributeValue) answer the bundle's information completed with its
// extension point's SDK defaults; see docs/application-registry.md.
//
// Thread-safety: every operation may be called from any thread at once.
#pragma once

#include "base/TvError.h"
#include "base/Uuid.h"
#include "base/Value.h"
#include "platform/registry/RegistryApplicationRecord.h"
#include "platform/registry/RegistryPlugInRecord.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tv::platform {

// Errors the registry raises itself carry their own domain, so that their
// codes never read as the daemon's wire codes or as errno values. Failures
// of the operating system keep the "POSIX" domain.
inline constexpr const char* kApplicationRegistryErrorDomain = "ApplicationRegistry";
enum RegistryErrorCode : int {
    kRegistryErrorNotAPlugIn = 1,    // registerPlugIn(): not a plug-in bundle (the reason follows)
    kRegistryErrorNotRegistered = 2, // unregisterPlugIn(): no plug-in is known at the path
    kRegistryErrorStore = 3,         // the persistent store cannot be read or written
    kRegistryErrorLimit = 4,         // registerPlugIn(): the bundle's owner has registered the most allowed
};

inline TvError registryError(RegistryErrorCode code, std::string description)
{
    return TvError{kApplicationRegistryErrorDomain, code, std::move(description)};
}

class ApplicationRegistryObserver {
public:
    virtual ~ApplicationRegistryObserver() = default;
    virtual void pluginsDidInstall(const std::vector<RegistryPlugInRecordPtr>& plugIns) = 0;
    virtual void pluginsWillUninstall(const std::vector<RegistryPlugInRecordPtr>& plugIns) = 0;
};

// Called for each plug-in that matches a query; true keeps it.
using RegistryPlugInFilter = std::function<bool(const RegistryPlugInRecord&)>;

class ApplicationRegistry {
public:
    virtual ~ApplicationRegistry() = default;

    // Every installed plug-in, ordered by bundle path.
    virtual std::vector<RegistryPlugInRecordPtr> allPlugIns() = 0;
    // Null when no installed plug-in has that UUID.
    virtual RegistryPlugInRecordPtr plugInWithUuid(const Uuid& uuid) = 0;
    // The plug-in whose bundle is at `pathOrUrl`; null when none is.
    virtual RegistryPlugInRecordPtr plugInAtPath(const std::string& pathOrUrl) = 0;
    // The application whose bundle is at `pathOrUrl`; null when none is.
    virtual RegistryApplicationRecordPtr applicationAtPath(const std::string& pathOrUrl) = 0;
    // The plug-ins of `application`, in the order of its plugInUuids; a
    // plug-in that is no longer installed is left out.
    virtual std::vector<RegistryPlugInRecordPtr> plugInsOfApplication(const RegistryApplicationRecord& application) = 0;

    // The installed plug-ins that match `query` and that `filter` (when
    // set) keeps, ordered by bundle path; each record appears once. A null
    // query or an empty dictionary matches every plug-in. The keys the
    // registry itself matches are:
    //   "KoExtensionPointIdentifier"  the plug-in dictionary's extension point
    //   "KoExtensionIdentifier"       the plug-in identifier
    // each with a string pattern (compared exactly; a leading "=" is an
    // operator and is dropped) or an array of such strings (any may match).
    // Any other key, and a pattern of another form for these two keys, is
    // left to the caller's own matching: it narrows nothing here. None when
    // the query is neither null nor a dictionary. The filter is called on the
    // caller's thread, without any registry lock held.
    virtual std::optional<std::vector<RegistryPlugInRecordPtr>> queryPlugIns(const Value& query,
                                                                             const RegistryPlugInFilter& filter) = 0;

    // Registers the plug-in bundle at `pathOrUrl`: a "*.vext" directory
    // whose Info.vlist is a dictionary with a "KoExtension" dictionary and an
    // identifier. The registration persists across restarts. Registering a
    // path that is already known refreshes its record, keeping its UUID when
    // identifier and version are unchanged.
    [[nodiscard]] virtual MaybeError registerPlugIn(const std::string& pathOrUrl) = 0;
    // Forgets the plug-in at `pathOrUrl` (its bundle need not exist any
    // more). An error when no plug-in is known there. A bundle under a
    // scanned directory is found again by the next scan that sees it there.
    [[nodiscard]] virtual MaybeError unregisterPlugIn(const std::string& pathOrUrl) = 0;

    // Compares what is on disk with what is recorded and installs,
    // uninstalls and refreshes accordingly.
    virtual void rescan() = 0;

    // Adds an observer, held weakly, for the life of the registry.
    virtual void addObserver(std::weak_ptr<ApplicationRegistryObserver> observer) = 0;

    // Drops in-memory caches; they are rebuilt from the persisted store on
    // the next use. Records handed out stay valid. Never waits for a change
    // in progress.
    virtual void dropCaches() = 0;
};

} // namespace tv::platform
