// ProcessStateService ("keepd"): which plug-in instances are running.
//
// An instance is busy while a process runs one of its plug-in's
// executables. A query names a set of bundle identifiers and answers with
// the busy instances among them, each a dictionary of instance properties
// keyed by the constants below; the bundle identifier property is the one
// the daemon relies on, the others are for logs and diagnostics.
//
// Thread-safety: every operation may be called from any thread; it answers
// synchronously. No callbacks.
#pragma once

#include "base/Result.h"
#include "base/Value.h"

#include <set>
#include <string>
#include <vector>

namespace tv::platform {

class ProcessStateService {
public:
    // Instance properties.
    static constexpr const char* kInstanceBundleIdentifierKey = "BundleIdentifier";
    static constexpr const char* kInstanceProcessIdentifierKey = "ProcessIdentifier";
    static constexpr const char* kInstanceExecutableKey = "Executable";

    virtual ~ProcessStateService() = default;

    // The busy instances of the bundles whose identifiers are in
    // `bundleIdentifiers`, in ascending process id order; empty when none
    // runs. An error when the process table cannot be read at all.
    virtual Result<std::vector<Value>> busyExtensionInstances(const std::set<std::string>& bundleIdentifiers) = 0;
};

} // namespace tv::platform
