// Plug-in bundles on disk for end-to-end tests, and the UUIDs the daemon's
// registry gives them.
#pragma once

#include "base/Uuid.h"
#include "tests/support/TestDaemon.h"

#include <optional>
#include <string>

namespace tv::test {

// Writes a plug-in bundle at `dir` (created) for the share-services extension
// point with bundle identifier `identifier`. With `executable` (a file to
// copy), the bundle gets it as its executable "plugin".
void makePlugInBundle(const std::string& dir, const std::string& identifier, const std::string& executable = "");

// Writes the application "<appsRoot>/<identifier>.app" holding one plug-in of
// `identifier` ("PlugIns/P.vext"); returns the plug-in's path. A daemon whose
// application roots hold `appsRoot` registers it when it appears.
std::string makeApplicationWithPlugIn(const std::string& appsRoot, const std::string& identifier);

// The UUID of the plug-in `identifier` as `daemon` logged its install
// ("plug-in INSTALLED:..."); waits for the line. None when it never came.
std::optional<Uuid> installedUuid(const TestDaemon& daemon, const std::string& identifier);

} // namespace tv::test
