// LinuxApplicationRegistry: the application registry over the local file
// system, persisted in SQLite (RegistryDatabase) at
// PlatformConfig::registryDatabase.
//
// RegistryScanner reads the bundles; this class reconciles each reading
// with the store: new bundles are installed with a fresh random UUID and a
// data container (<containersRoot>/Data/PlugIn/<UUID>/, mode 0700),
// vanished ones are uninstalled, a changed identifier or version at the same
// path is an uninstall and an install under a new UUID, and everything else
// keeps its UUID. A bundle whose facts changed in place (information,
// entitlements, containing application) keeps its UUID and is announced as
// an uninstall of the old record and an install of the new one, so that
// caches keyed by UUID drop it. create() scans once (unannounced), or,
// with InitialScan::WhenWatching and a store that already holds plug-ins,
// serves the stored records at once and leaves the first scan to the
// watcher's thread (announced like any other), so that a daemon with a
// large registry answers before it has read every bundle again.
// rescan() scans at any time. startWatching() has a background thread
// follow the roots with inotify and rescan shortly after changes settle. Records are served from an immutable RegistryIndex whose
// dictionaries are resolved against the extension point SDKs.
//
// Announcements are delivered by a RegistryAnnouncer on its own callback
// thread, after the change, with no registry lock held.
//
// Thread-safety: as ApplicationRegistry. Changes (scans, registrations) are
// serialised; lookups read an immutable index and never wait for a scan;
// dropCaches() never waits for one either.
#pragma once

#include "platform/registry/ApplicationRegistry.h"
#include "platform/process/BundleService.h"
#include "platform/security/CodeSigningService.h"
#include "platform/PlatformConfig.h"
#include "platform/registry/RegistryDatabase.h"
#include "platform/registry/RegistryAnnouncer.h"
#include "platform/registry/RegistryIndex.h"
#include "platform/registry/RegistryScanner.h"
#include "platform/sdk/ExtensionSdkRegistry.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tv::platform {

class RegistryWatcher;

class LinuxApplicationRegistry final : public ApplicationRegistry {
public:
    // When create() compares the disk with the store.
    enum class InitialScan {
        AtOpen,       // before create() returns
        WhenWatching, // first thing on the watcher's thread; at open when the store is empty
    };

    // Opens (or creates, or rebuilds when damaged) the store and scans once
    // (see InitialScan). Fails only when no store can be opened at the
    // configured location. `sdks` completes the records' dictionaries;
    // null: no SDK defaults.
    static Result<std::shared_ptr<LinuxApplicationRegistry>> create(
        const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
        std::shared_ptr<CodeSigningService> codeSigning, std::shared_ptr<ExtensionSdkRegistry> sdks = nullptr,
        InitialScan initialScan = InitialScan::AtOpen);
    ~LinuxApplicationRegistry() override;

    // Follows the application roots, their applications' "PlugIns"
    // directories and the system plug-ins directory with inotify, and
    // rescans on the watcher's thread once no change has been seen for
    // `settle`, and first of all when the initial scan was left to it.
    // Calling it again does nothing. An error when inotify is
    // unavailable; the registry then only changes through its operations.
    [[nodiscard]] MaybeError startWatching(std::chrono::milliseconds settle = std::chrono::milliseconds(200));

    // Returns once every change made before the call has been announced.
    // Must not be called from a callback, nor from a thread a callback may
    // wait for.
    void waitForAnnouncements();

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
    // Whether the owner of the bundle at the canonical `path` may register
    // one more by path (config maxRegisteredPerUser). With changeMutex_ held
    // and the store loaded.
    MaybeError checkRegistrationRoom(const std::string& path) const;
    LinuxApplicationRegistry(const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
                             std::shared_ptr<CodeSigningService> codeSigning, std::shared_ptr<ExtensionSdkRegistry> sdks,
                             std::unique_ptr<RegistryDatabase> db);

    // Reads the store's rows into stored_ the first time anything needs
    // them, which a daemon with a large store does after its first reply.
    // Every reader of stored_ calls it first, never with stateMutex_ held;
    // as every change does too, no change touches db_ before it has run.
    void loadStored();
    // Applies a scan to the stored rows within `scope` (all rows when
    // `scope` is none), persists, and queues the announcements. An error
    // leaves everything as it was. REQUIRES: changeMutex_ held.
    MaybeError reconcile(const RegistryScanner::Scan& scan, const std::optional<std::string>& scope);
    void createDataContainer(const Uuid& uuid);
    std::vector<std::string> watchedDirectories();
    std::shared_ptr<const RegistryIndex> index();
    std::shared_ptr<const RegistryIndex> makeIndex(std::shared_ptr<const StoredRegistry> stored) const;

    const PlatformConfig config_;
    const RegistryScanner scanner_;
    const std::shared_ptr<ExtensionSdkRegistry> sdks_;
    const RegistryIndex::Locations locations_; // system volume root in canonical form

    std::mutex changeMutex_; // serialises changes; guards db_ once loaded_
    std::unique_ptr<RegistryDatabase> db_;

    std::mutex loadMutex_;         // serialises loadStored()
    std::atomic<bool> loaded_{false};
    mutable std::mutex stateMutex_; // guards stored_ (written under both locks once loaded_) and index_
    std::shared_ptr<const StoredRegistry> stored_; // what db_ holds, once loaded_; indexes share it
    std::shared_ptr<const RegistryIndex> index_; // null after dropCaches()

    RegistryAnnouncer announcer_;
    std::unique_ptr<RegistryWatcher> watcher_;
    bool scanWhenWatching_ = false; // guarded by changeMutex_
};

} // namespace tv::platform
