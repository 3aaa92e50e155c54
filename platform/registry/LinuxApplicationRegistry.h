// LinuxApplicationRegistry: the application registry over the local file
// system, persisted in SQLite (RegistryDatabase) at
// PlatformConfig::registryDatabase.
//
// Sources, in order of precedence for a bundle found twice:
//   - "<root>/*.app" for each of PlatformConfig::applicationRoots (one level
//     deep), and each application's "PlugIns/*.vext";
//   - PlatformConfig::systemPlugInsDir/"*.vext";
//   - plug-in bundles registered by path (persisted).
// Information dictionaries are read through the BundleService, entitlements
// through CodeSigningService::entitlementsOfExecutable of the plug-in's
// executable. A plug-in bundle counts when its Info.vlist is a dictionary
// holding a "KoExtension" dictionary and an identifier; an application when
// its Info.vlist is a dictionary. Anything else is skipped with a line in
// the platform log (category "registry").
//
// create() scans once, reconciling the store with the disk: new bundles are
// installed with a fresh random UUID and a data container
// (<containersRoot>/Data/PlugIn/<UUID>/, mode 0700), vanished ones are
// uninstalled, a changed identifier or version at the same path is an
// uninstall and an install under a new UUID, and everything else keeps its
// UUID. rescan() does the same at any time. startWatching() has a background
// thread follow the roots with inotify and rescan shortly after changes
// settle; its notifications arrive on that thread.
//
// Thread-safety: as ApplicationRegistry. Changes (scans, registrations) are
// serialised; lookups read an immutable index and never wait for a scan.
#pragma once

#include "platform/registry/ApplicationRegistry.h"
#include "platform/process/BundleService.h"
#include "platform/security/CodeSigningService.h"
#include "platform/PlatformConfig.h"
#include "platform/registry/RegistryDatabase.h"
#include "platform/registry/RegistryIndex.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tv::platform {

class RegistryWatcher;

class LinuxApplicationRegistry final : public ApplicationRegistry {
public:
    // Opens (or creates, or rebuilds when damaged) the store and scans once.
    // Fails only when no store can be opened at the configured location.
    static Result<std::shared_ptr<LinuxApplicationRegistry>> create(const PlatformConfig& config,
                                                                    std::shared_ptr<BundleService> bundles,
                                                                    std::shared_ptr<CodeSigningService> codeSigning);
    ~LinuxApplicationRegistry() override;

    // Follows the application roots, their applications' "PlugIns"
    // directories and the system plug-ins directory with inotify, and
    // rescans on the watcher's thread once no change has been seen for
    // `settle`. Calling it again does nothing. An error when inotify is
    // unavailable; the registry then only changes through its operations.
    [[nodiscard]] MaybeError startWatching(std::chrono::milliseconds settle = std::chrono::milliseconds(200));

    // ApplicationRegistry
    std::vector<RegistryPlugInRecordPtr> allPlugIns() override;
    RegistryPlugInRecordPtr plugInWithUuid(const Uuid& uuid) override;
    RegistryPlugInRecordPtr plugInAtPath(const std::string& pathOrUrl) override;
    RegistryApplicationRecordPtr applicationAtPath(const std::string& pathOrUrl) override;
    std::vector<RegistryPlugInRecordPtr> plugInsOfApplication(const RegistryApplicationRecord& application) override;
    std::optional<std::vector<RegistryPlugInRecordPtr>> queryPlugIns(const Value& query,
                                                                     const RegistryPlugInFilter& filter) override;
    MaybeError registerPlugIn(const std::string& pathOrUrl) override;
    MaybeError unregisterPlugIn(const std::string& pathOrUrl) override;
    void rescan() override;
    void addObserver(std::weak_ptr<ApplicationRegistryObserver> observer) override;
    void dropCaches() override;

    // The canonical form in which bundle locations are compared: "file://"
    // stripped, made absolute, symbolic links resolved as far as the path
    // exists, no trailing "/".
    static std::string canonicalBundlePath(const std::string& pathOrUrl);

private:
    struct Candidate;
    struct Scan;
    struct Outcome;

    LinuxApplicationRegistry(const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
                             std::shared_ptr<CodeSigningService> codeSigning, std::unique_ptr<RegistryDatabase> db,
                             StoredRegistry stored);

    // REQUIRES: changeMutex_ held.
    Scan scanDisk();
    std::optional<StoredPlugIn> readPlugIn(const Candidate& candidate, std::string* whyNot);
    // Applies a scan to the stored rows within `scope` (all rows when
    // `scope` is none), persists, notifies. An error leaves everything as
    // it was.
    MaybeError reconcile(const Scan& scan, const std::optional<std::string>& scope);
    void createDataContainer(const Uuid& uuid);
    std::vector<std::string> watchedDirectories() const;

    std::shared_ptr<const RegistryIndex> index();
    void notify(bool install, const std::vector<RegistryPlugInRecordPtr>& plugIns);
    // True when the calling thread is inside a change (an observer calling
    // back); such a change is refused.
    bool reentered() const;

    const PlatformConfig config_;
    const std::shared_ptr<BundleService> bundles_;
    const std::shared_ptr<CodeSigningService> codeSigning_;

    std::mutex changeMutex_; // serialises changes; guards db_
    std::atomic<std::thread::id> changingThread_{};
    std::unique_ptr<RegistryDatabase> db_;

    mutable std::mutex stateMutex_; // guards stored_, index_, observers_
    StoredRegistry stored_;         // what db_ holds
    std::shared_ptr<const RegistryIndex> index_; // null after dropCaches()
    std::vector<std::weak_ptr<ApplicationRegistryObserver>> observers_;

    std::unique_ptr<RegistryWatcher> watcher_;
};

} // namespace tv::platform
