// Plug-in bundles on disk for end-to-end tests, and the UUIDs the daemon's
// registry gives them.
#pragma once

#include "base/Uuid.h"
#include "base/Value.h"
#include "tests/support/TestDaemon.h"

#include <optional>
#include <string>

namespace tv::test {

// A share-services plug-in bundle at `dir` for `identifier`; with
// `executable`, a copy of that file is its executable "plugin".
void makePlugInBundle(const std::string& dir, const std::string& identifier, const std::string& executable = "");
// The application "<appsRoot>/<identifier>.app" holding the plug-in
// `identifier` (with `executable`, as above) at "PlugIns/P.vext"; returns
// the plug-in's canonical path.
std::string makeApplicationWithPlugIn(const std::string& appsRoot, const std::string& identifier,
                                      const std::string& executable = "");
// An administrator's drop-in in `daemon`'s entitlements directory giving
// `executable` the manager entitlement with `value`.
void entitleManager(const TestDaemon& daemon, const std::string& executable, const Value& value = Value(true));
// The UUID in `daemon`'s "plug-in INSTALLED:" line for `identifier`, once
// logged; none when it never came.
std::optional<Uuid> installedUuid(const TestDaemon& daemon, const std::string& identifier);

} // namespace tv::test
