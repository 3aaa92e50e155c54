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
class UserPersona;
class ContainerService;
class PreferencesService;
class NotificationService;
class JobManager;
} // namespace platform

struct TvdPlatform {
    std::shared_ptr<platform::VynService> vyn;
    std::shared_ptr<platform::ProcessInfo> processInfo;
    std::shared_ptr<platform::CodeSigningService> codeSigning;
    std::shared_ptr<platform::ApplicationRegistry> applicationRegistry;
    // The annotation store's: who the daemon serves, the user's containers,
    // and the device-wide annotation file (see TvdAnnotationStore).
    std::shared_ptr<platform::UserPersona> userPersona;
    std::shared_ptr<platform::ContainerService> containers;
    std::string globalAnnotationsFile = "/var/db/Tarvik-Annotations";
    // The daemon's preferences domain (TvdUserPrefs).
    std::shared_ptr<platform::PreferencesService> preferences;
    // The annotation-change broadcast.
    std::shared_ptr<platform::NotificationService> notifications;
    // Plug-in launch registrations ("jobd").
    std::shared_ptr<platform::JobManager> jobManager;

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
