#include "tvd/TvdLinuxPlatform.h"

#include "Tarvik/TvBundle.h"
#include "Tarvik/TvPlugInCore.h"
#include "platform/containers/LinuxContainerService.h"
#include "platform/jobs/LinuxJobManager.h"
#include "platform/notify/LinuxNotificationService.h"
#include "platform/persona/LinuxUserPersona.h"
#include "platform/preferences/LinuxPreferencesService.h"
#include "platform/privacy/LinuxPrivacyConsentService.h"
#include "platform/registry/LinuxApplicationRegistry.h"
#include "platform/process/LinuxBundleService.h"
#include "platform/security/LinuxCodeSigningService.h"
#include "platform/sdk/LinuxExtensionSdkRegistry.h"
#include "platform/process/LinuxProcessInfo.h"
#include "platform/processstate/LinuxProcessStateService.h"
#include "platform/lifecycle/LinuxServiceLifecycle.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/activation/LinuxActivationRuleEvaluator.h"
#include "platform/types/LinuxTypeIdentifierService.h"
#include "tvd/TvdMatchRules.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdServer.h"

namespace tv {

Result<TvdPlatform> makeLinuxPlatform(const platform::PlatformConfig& config)
{
    auto vyn = platform::LinuxVynService::create(config);
    if (!vyn)
        return makeError(4, "the IPC service could not be set up");
    auto bundles = std::make_shared<platform::LinuxBundleService>();
    auto processInfo = std::make_shared<platform::LinuxProcessInfo>();
    auto codeSigning =
        std::make_shared<platform::LinuxCodeSigningService>(processInfo, bundles, config.entitlementsDropInDir);
    auto sdks = std::make_shared<platform::LinuxExtensionSdkRegistry>(config.sdkDir);
    auto registry = platform::LinuxApplicationRegistry::create(
        config, bundles, codeSigning, sdks, platform::LinuxApplicationRegistry::InitialScan::WhenWatching);
    if (!registry)
        return makeError(4, "the application registry could not be opened: " + registry.error().localizedDescription());
    if (auto error = (*registry)->startWatching())
        return makeError(4, "the application registry cannot watch for installs: " + error->localizedDescription());

    TvBundle::setBundleService(bundles);
    TvdPlugIn::setSystemVolumeRoot(config.systemVolumeRoot);
    TvdPlugIn::setPrivacyConsentService(
        std::make_shared<platform::LinuxPrivacyConsentService>(config.privacyGrantsFile));
    TvdPlugIn::setProcessStateService(std::make_shared<platform::LinuxProcessStateService>(bundles));
    TvPlugInCore::setSdkRegistry(sdks);
    auto types = std::make_shared<platform::LinuxTypeIdentifierService>(config.typesDir);
    // Elections come from the process-wide server's annotation store; match
    // rules are never evaluated on the database queue, so the synchronous
    // read there cannot re-enter it.
    auto annotationForPlugIn = [](const TvPlugInCore& plugIn) -> Value {
        auto server = TvdServer::server();
        auto daemonPlugIn = dynamic_cast<const TvdPlugIn*>(&plugIn);
        if (!server || !daemonPlugIn)
            return Value();
        return server->annotationForPlugIn(*daemonPlugIn);
    };
    TvdMatchRules::setShared(std::make_shared<const TvdMatchRules>(TvdMatchServices{
        types, std::make_shared<platform::LinuxActivationRuleEvaluator>(types), annotationForPlugIn}));

    TvdPlatform platform;
    platform.vyn = vyn;
    platform.processInfo = processInfo;
    platform.codeSigning = codeSigning;
    platform.applicationRegistry = *registry;
    platform.userPersona = std::make_shared<platform::LinuxUserPersona>(config.multiUser);
    platform.containers = std::make_shared<platform::LinuxContainerService>(config.containersRoot);
    platform.globalAnnotationsFile = config.globalAnnotationsFile;
    platform.preferences = std::make_shared<platform::LinuxPreferencesService>(config.preferencesDir);
    platform.notifications = std::make_shared<platform::LinuxNotificationService>(config.runtimeDir);
    platform.jobManager = std::make_shared<platform::LinuxJobManager>();
    platform.runMainLoop = [config, vyn](TvdServer& server) {
        platform::LinuxServiceLifecycle lifecycle(
            config, vyn, server.mainQueue(),
            std::vector<std::shared_ptr<SerialQueue>>{server.vynQueue(), server.syncQueue(), server.identifyQueue()});
        return lifecycle.run();
    };
    return platform;
}

} // namespace tv
