// tvd: the plug-in registry daemon.
#include "Tarvik/TvLog.h"
#include "platform/PlatformConfig.h"
#include "platform/process/ProcessResources.h"
#include "tvd/TvdCommandLine.h"
#include "tvd/TvdLinuxPlatform.h"
#include "tvd/TvdServer.h"

#include <csignal>
#include <pthread.h>
#include <cstdio>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using namespace tv;

static int unableToConstruct()
{
    TvLog::ops().error("unable to construct server");
    return 1;
}

int main(int argc, char** argv)
{
    // SIGTERM and SIGINT wait for the main loop, which ends the process
    // cleanly; every thread started from here on inherits the blocking.
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigaddset(&termination, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &termination, nullptr);

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
    // Every connection costs two descriptors: take what the hard limit
    // allows and fit the connection caps to it.
    std::uint64_t descriptors = platform::ProcessResources::raiseDescriptorLimit();
    config->limits = config->limits.fittedToDescriptors(descriptors);
    TvLog::ops().info("descriptor limit %llu: at most %zu connections, %zu per uid", descriptors,
                      config->limits.maxConnections, config->limits.maxConnectionsPerUid);
    platform::ProcessResources::returnFreedMemoryPromptly();
    auto platform = makeLinuxPlatform(*config);
    if (!platform) {
        TvLog::ops().error("%{public}@", platform.error().localizedDescription());
        return unableToConstruct();
    }
    const char* database = line->databaseLocation ? line->databaseLocation->c_str() : nullptr;
    auto server = TvdServer::initForServiceDatabase(line->serviceName.c_str(), database, std::move(*platform));
    if (!server)
        return unableToConstruct();
    server->setVerbose(line->verbose);
    server->setCacheLimit(line->cacheLimit);
    int status = server->run();
    // The daemon's objects stay alive to the very end: leave without
    // unwinding them while other threads may still use them.
    std::fflush(stdout);
    std::fflush(stderr);
#if defined(__SANITIZE_ADDRESS__)
    // _Exit skips the leak check LeakSanitizer runs at exit. Run it here,
    // where the server is still reachable from this frame: what it reports
    // is memory nothing refers to any more. Leaks end the process with
    // LeakSanitizer's exit status.
    __lsan_do_leak_check();
#endif
    std::_Exit(status);
}
