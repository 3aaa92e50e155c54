// TvdPlatform: the platform services the daemon uses, handed to the server
// at construction. Production fills it with the Linux implementations
// (tvd/main.cpp); tests fill it with fakes.
#pragma once

#include "base/SerialQueue.h"

#include <functional>
#include <memory>
#include <string>

namespace tv {

class TvdServer;

namespace platform {
class VynService;
class ProcessInfo;
class CodeSigningService;
class ApplicationRegistry;
} // namespace platform

struct TvdPlatform {
    std::shared_ptr<platform::VynService> vyn;
    std::shared_ptr<platform::ProcessInfo> processInfo;
    std::shared_ptr<platform::CodeSigningService> codeSigning;
    std::shared_ptr<platform::ApplicationRegistry> applicationRegistry;
    // The job manager's removal of every launch registration of a bundle
    // identifier at a version: the completion runs on the given queue with 0
    // (something was on record), 3 (ESRCH: nothing was) or another errno.
    // Null: no registrations are kept, so nothing is ever on record.
    std::function<void(const std::string& bundleIdentifier, const std::string& bundleVersion,
                       std::shared_ptr<SerialQueue> queue, std::function<void(int result)> completion)>
        removeExternalService;

    // Makes the server's queues. Tests hand in manual queues to drive them
    // deterministically; the default makes threaded ones.
    std::function<std::shared_ptr<SerialQueue>(std::string label, SerialQueue::QoS qos)> makeQueue =
        [](std::string label, SerialQueue::QoS qos) { return SerialQueue::create(std::move(label), qos); };

    // The process's main event loop for `server`. It returns only when the
    // process should end, with the status to exit with. Null:
    // TvdServer::run() returns 0 once the listener is resumed (tests).
    std::function<int(TvdServer& server)> runMainLoop;
};

} // namespace tv
