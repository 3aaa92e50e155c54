// LinuxProcessStateService: busy plug-in instances from procfs.
//
// A query reads the target of <proc>/PID/exe for every process and walks up
// from the executable's directory: the first bundle directory (one holding
// Info.vlist, read through the bundle service) whose "KbBundleIdentifier" is
// in the query makes that process a busy instance of it. Bundles nest (a
// plug-in inside an application), so the walk goes on past bundles whose
// identifier is not asked for. An executable deleted or replaced since the
// process started (the kernel appends " (deleted)") still counts: the old
// version of the plug-in is running.
//
// Processes whose executable cannot be read (another user's, kernel
// threads, one that just exited) are skipped. Each query reads every
// directory's bundle at most once, so many processes of one program cost one
// lookup; the walk up is bounded at kMaxDepth directories.
//
// Thread-safe: the service keeps no state between queries.
#pragma once

#include "platform/process/BundleService.h"
#include "platform/processstate/ProcessStateService.h"

#include <memory>
#include <string>

namespace tv::platform {

class LinuxProcessStateService final : public ProcessStateService {
public:
    static constexpr std::size_t kMaxDepth = 64;

    // `procRoot` is where procfs is mounted (tests point it elsewhere).
    explicit LinuxProcessStateService(std::shared_ptr<BundleService> bundles, std::string procRoot = "/proc");

    // ProcessStateService
    Result<std::vector<Value>> busyExtensionInstances(const std::set<std::string>& bundleIdentifiers) override;

private:
    std::shared_ptr<BundleService> bundles_;
    std::string procRoot_;
};

} // namespace tv::platform
