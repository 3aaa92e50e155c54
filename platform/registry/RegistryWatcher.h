// RegistryWatcher: a background thread that follows a set of directories
// with inotify and reports, once changes have settled, that something in
// them changed.
//
// Events that arrive within `settle` of each other are reported once, with
// one call of `changed` on the watcher's thread after the last of them.
// After each report the watched set is taken again from `directories`, so
// that directories that appeared (a new application's "PlugIns") are
// followed from then on; a directory that does not exist is skipped. An
// inotify queue overflow counts as a change.
//
// Thread-safety: the callbacks run on the watcher's own thread, one at a
// time; `directories` is also called once from start(). The destructor
// stops the thread and waits for a running callback to return, so it must
// not be called from a callback.
#pragma once

#include "base/Result.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tv::platform {

class RegistryWatcher {
public:
    using Directories = std::function<std::vector<std::string>()>;

    // With `reportAtStart`, `changed` is called once as soon as the thread
    // runs, as if a change had been seen, and the first watches are set on
    // that thread rather than before start() returns.
    static Result<std::unique_ptr<RegistryWatcher>> start(std::chrono::milliseconds settle, Directories directories,
                                                          std::function<void()> changed, bool reportAtStart = false);
    ~RegistryWatcher();
    RegistryWatcher(const RegistryWatcher&) = delete;
    RegistryWatcher& operator=(const RegistryWatcher&) = delete;

private:
    RegistryWatcher(int inotifyFd, int stopFd, std::chrono::milliseconds settle, Directories directories,
                    std::function<void()> changed);
    void run(bool reportAtStart);
    void refreshWatches();
    // Reads every pending event; false when the descriptor failed.
    bool drainEvents();

    int inotifyFd_;
    int stopFd_;
    std::chrono::milliseconds settle_;
    Directories directories_;
    std::function<void()> changed_;
    std::map<std::string, int> watches_; // directory to watch descriptor
    std::thread thread_;
};

} // namespace tv::platform
