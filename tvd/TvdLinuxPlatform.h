// The daemon's platform on Linux: builds every service the server uses from
// the platform configuration, installs the process-wide ones (the bundle
// service behind TvBundle, the extension SDK registry behind the plug-in
// model), and provides the main loop (readiness, watchdog, idle exit,
// SIGTERM). Errors name the service that could not be set up.
#pragma once

#include "base/Result.h"
#include "platform/PlatformConfig.h"
#include "tvd/TvdPlatform.h"

namespace tv {

Result<TvdPlatform> makeLinuxPlatform(const platform::PlatformConfig& config);

} // namespace tv
