// LinuxContainerService: a container is the directory
// `<containers root>/class-<N>/<identifier>/`, made with mode 0700 (parents
// too) on request. The containers root comes from the platform configuration
// (`containers_root`; per user by default, `$XDG_DATA_HOME/containers`).
//
// Thread-safe: no state beyond the root; concurrent creation of one container
// is harmless (an existing directory is not a failure).
#pragma once

#include "platform/containers/ContainerService.h"

#include <string>

namespace tv::platform {

class LinuxContainerService final : public ContainerService {
public:
    explicit LinuxContainerService(std::string containersRoot);

    // ContainerService
    Result<std::string> containerPath(std::uint64_t containerClass, const std::string& identifier,
                                      bool create) override;

private:
    std::string root_;
};

} // namespace tv::platform
