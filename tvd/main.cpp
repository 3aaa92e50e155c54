// tvd: the plug-in registry daemon.
#include "Tarvik/TvBundle.h"
#include "Tarvik/TvLog.h"
#include "Tarvik/TvPlugInCore.h"
#include "platform/LinuxApplicationRegistry.h"
#include "platform/LinuxBundleService.h"
#include "platform/LinuxCodeSigningService.h"
#include "platform/LinuxExtensionSdkRegistry.h"
#include "platform/LinuxProcessInfo.h"
#include "platform/LinuxServiceLifecycle.h"
#include "platform/LinuxVynService.h"
#include "platform/PlatformConfig.h"
#include "tvd/TvdCommandLine.h"
#include "tvd/TvdServer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

using namespace tv;

static int unableToConstruct()
{
    TvLog::ops().error("unable to construct server");
    return 1;
}

int main(int argc, char** argv)
{
    TvLog::ops().info("tvd is launching");
    TvLog::logUncaughtQueueExceptions();
    auto line = TvdCommandLine::parse(argc, argv);
    if (!line) {
        std::fputs(TvdCommandLine::kUsage, stderr);
        return 2;
    }
    // A client that goes away while its reply is written must not end us.
    std::signal(SIGPIPE, SIG_IGN);

    auto config = platform::PlatformConfig::load();
    if (!config) {
        TvLog::ops().error("invalid platform configuration: %{public}@", config.error().localizedDescription());
        return unableToConstruct();
    }
    auto vyn = platform::LinuxVynService::create(*config);
    if (!vyn)
        return unableToConstruct();
    auto bundles = std::make_shared<platform::LinuxBundleService>();
    auto processInfo = std::make_shared<platform::LinuxProcessInfo>();
    TvBundle::setBundleService(bundles);
    TvPlugInCore::setSdkRegistry(std::make_shared<platform::LinuxExtensionSdkRegistry>(config->sdkDir));

    TvdPlatform platform;
    platform.vyn = vyn;
    platform.processInfo = processInfo;
    auto codeSigning =
        std::make_shared<platform::LinuxCodeSigningService>(processInfo, bundles, config->entitlementsDropInDir);
    platform.codeSigning = codeSigning;
    auto registry = platform::LinuxApplicationRegistry::create(*config, bundles, codeSigning);
    if (!registry) {
        TvLog::ops().error("unable to open the application registry: %{public}@",
                           registry.error().localizedDescription());
        return unableToConstruct();
    }
    if (auto error = (*registry)->startWatching())
        TvLog::ops().error("installs and uninstalls will not be noticed: %{public}@", error->localizedDescription());
    platform.applicationRegistry = *registry;

    // The main loop needs the server's queues, which exist only once the
    // server does; it is made when the server enters it.
    std::shared_ptr<platform::LinuxServiceLifecycle> lifecycle;
    std::weak_ptr<TvdServer> weakServer;
    platform.runMainLoop = [&] {
        auto server = weakServer.lock();
        lifecycle = std::make_shared<platform::LinuxServiceLifecycle>(
            *config, vyn, server->mainQueue(),
            std::vector<std::shared_ptr<SerialQueue>>{server->vynQueue(), server->syncQueue()});
        return lifecycle->run();
    };

    const char* database = line->databaseLocation ? line->databaseLocation->c_str() : nullptr;
    auto server = TvdServer::initForServiceDatabase(line->serviceName.c_str(), database, std::move(platform));
    if (!server)
        return unableToConstruct();
    weakServer = server;
    server->setVerbose(line->verbose);
    server->setCacheLimit(line->cacheLimit);
    // The daemon's objects stay alive to the very end: exit without
    // unwinding them while other threads may still use them.
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(server->run());
}
