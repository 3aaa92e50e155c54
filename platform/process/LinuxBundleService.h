// LinuxBundleService: bundles as directories on the local file system.
//
// A bundle is a directory with a regular file "Info.vlist" at its root.
// "KbBundleExecutable" names the executable relative to the bundle; a value
// that is absolute or leads out of the bundle ("../x") declares no
// executable. The support directory is the bundle directory itself, so a
// bundle's plug-ins sit in <bundle>/PlugIns/.
//
// Paths are made absolute (relative to the working directory) and, where
// they exist, canonical (symbolic links resolved), so that a bundle reached
// through a link reports its real location.
//
// Opening by executable walks up from the executable's directory to the
// nearest directory whose Info.vlist names the executable; nothing claims it
// gives null. The walk is bounded, since every new client costs one: an
// Info.vlist over 1 MiB is skipped, and at most 8 are read. The running program's bundle is the one that claims the
// target of /proc/self/exe.
//
// Thread-safe: the service holds no mutable state; Info.vlist is read again
// on every query.
#pragma once

#include "platform/process/BundleService.h"
#include "platform/formats/VlistFileReader.h"

#include <string>

namespace tv::platform {

class LinuxBundleService final : public BundleService {
public:
    // `selfExecutableLink` is the symbolic link whose target is the running
    // program (tests point it elsewhere).
    explicit LinuxBundleService(VlistFileReader readVlist = systemVlistFileReader(),
                                std::string selfExecutableLink = "/proc/self/exe");

    // BundleService
    std::shared_ptr<BundleHandle> openBundleDirectory(const std::string& path) override;
    std::shared_ptr<BundleHandle> openBundleWithExecutable(const std::string& executablePath) override;
    std::shared_ptr<BundleHandle> openMainBundle() override;
    std::optional<std::string> bundlePath(const BundleHandle& bundle) override;
    std::optional<std::string> executablePath(const BundleHandle& bundle) override;
    std::optional<std::string> supportDirectory(const BundleHandle& bundle) override;
    Value infoDictionary(const BundleHandle& bundle) override;
    std::optional<std::string> bundleIdentifier(const BundleHandle& bundle) override;

private:
    VlistFileReader readVlist_;
    std::string selfExecutableLink_;
};

} // namespace tv::platform
