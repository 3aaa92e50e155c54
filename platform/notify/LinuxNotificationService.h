// LinuxNotificationService: a named notification is the file
// `<runtime dir>/notify/<name>` holding its state, a 64-bit counter in
// decimal followed by a newline. post() reads the counter and replaces the
// file atomically (writeFileAtomically) with the counter plus one, so a
// reader never sees a partial file. Two processes posting at the same instant
// may write the same counter; each still replaces the file, so observers are
// told.
//
// Observers watch the notify directory with inotify (a file moved into place
// or closed after writing under the name) from one thread per observation;
// the thread reads the state and schedules the handler on the observer's
// queue, once per batch of events.
//
// Thread-safe: no shared mutable state beyond the files.
#pragma once

#include "platform/notify/NotificationService.h"

#include <string>

namespace tv::platform {

class LinuxNotificationService final : public NotificationService {
public:
    explicit LinuxNotificationService(std::string runtimeDir);

    const std::string& notifyDir() const { return dir_; }

    // NotificationService
    MaybeError post(const std::string& name) override;
    std::uint64_t state(const std::string& name) override;
    Result<std::unique_ptr<NotificationObservation>> observe(const std::string& name,
                                                            std::shared_ptr<SerialQueue> queue,
                                                            Handler handler) override;

private:
    std::string dir_;
};

} // namespace tv::platform
