#include "tvd/TvdLinuxPlatform.h"

#include "Tarvik/TvBundle.h"
#include "Tarvik/TvPlugInCore.h"
#include "platform/registry/LinuxApplicationRegistry.h"
#include "platform/process/LinuxBundleService.h"
#include "platform/security/LinuxCodeSigningService.h"
#include "platform/sdk/LinuxExtensionSdkRegistry.h"
#include "platform/process/LinuxProcessInfo.h"
#include "platform/lifecycle/LinuxServiceLifecycle.h"
#include "platform/ipc/LinuxVynService.h"
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
    auto registry = platform::LinuxApplicationRegistry::create(config, bundles, codeSigning);
    if (!registry)
        return makeError(4, "the application registry could not be opened: " + registry.error().localizedDescription());
    if (auto error = (*registry)->startWatching())
        return makeError(4, "the application registry cannot watch for installs: " + error->localizedDescription());

    TvBundle::setBundleService(bundles);
    TvPlugInCore::setSdkRegistry(std::make_shared<platform::LinuxExtensionSdkRegistry>(config.sdkDir));

    TvdPlatform platform;
    platform.vyn = vyn;
    platform.processInfo = processInfo;
    platform.codeSigning = codeSigning;
    platform.applicationRegistry = *registry;
    platform.runMainLoop = [config, vyn](TvdServer& server) {
        platform::LinuxServiceLifecycle lifecycle(
            config, vyn, server.mainQueue(),
            std::vector<std::shared_ptr<SerialQueue>>{server.vynQueue(), server.syncQueue(), server.identifyQueue()});
        return lifecycle.run();
    };
    return platform;
}

} // namespace tv
