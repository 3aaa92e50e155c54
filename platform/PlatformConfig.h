// PlatformConfig: every location and limit the platform layer uses, from one
// configuration.
//
// Production defaults depend on who runs the process (root: system paths
// under /run, /var/lib and /etc; any other user: the XDG directories). The
// environment variable TVD_CONFIG names a configuration file that overrides
// any of them, so that a test or the demo runs a whole platform inside a
// temporary directory without root.
//
// File format: one "key = value" per line; "#" starts a comment line; blank
// lines are ignored; relative paths are taken relative to the file's own
// directory; list values (application_roots) are separated by ":". Unknown
// keys and malformed numbers are errors, so that a typo is never silently
// ignored. The keys are documented in docs/configuration.md.
#pragma once

#include "base/Result.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tv::platform {

// Limits of the IPC transport. Every one is checked before anything is
// allocated for the data it guards.
struct VynLimits {
    std::size_t maxRequestFrame = 4u << 20;   // bytes; configurable up to 16 MiB
    std::size_t maxReplyFrame = 256u << 20;   // bytes a client reads
    std::size_t maxDepth = 64;                // nesting of a message body
    std::size_t maxInFlight = 128;            // unanswered requests per connection before reading stops
    std::size_t maxUnsentOutput = 8u << 20;   // bytes queued behind the reply being written
    std::size_t maxConnectionsPerUid = 256;
    std::size_t maxConnections = 2048;
    std::uint32_t incompleteFrameTimeoutMs = 30000;
    // Decoded memory of the requests received and not yet run, per
    // connection and per peer uid; past either, reading stops (backpressure).
    // A frame whose decoded form would exceed the smaller one is cut.
    std::size_t maxQueuedPerConnection = 32u << 20;
    std::size_t maxQueuedPerUid = 64u << 20;

    // These limits with the connection caps cut to what `descriptors` open
    // files allow: each connection costs two (socket and pidfd) and a
    // reserve is kept for the rest of the process. When the total has to be
    // cut, one uid may take at most an eighth of it, so that one uid never
    // starves the others.
    VynLimits fittedToDescriptors(std::uint64_t descriptors) const;
    static constexpr std::uint64_t kReservedDescriptors = 128;
};

struct PlatformConfig {
    std::string socketDir;                     // named listeners: <socketDir>/<name>
    std::string runtimeDir;                    // per-boot state: sandbox key, notifications
    std::vector<std::string> applicationRoots; // where *.app bundles are installed
    std::string systemVolumeRoot;              // bundles below it are "on the system volume"
    std::string systemPlugInsDir;              // system plug-ins (*.vext)
    std::string registryDatabase;              // application registry (SQLite)
    std::string containersRoot;                // data containers
    std::string preferencesDir;                // one vlist per preferences domain
    std::string globalAnnotationsFile;         // the device-wide annotation file (single-user mode)
    std::string sdkDir;                        // extension SDKs: <identifier>.vlist
    std::string typesDir;                      // type declarations
    std::string privacyGrantsFile;             // privacy-consent grants
    std::string entitlementsDropInDir;         // administrator-given entitlements
    VynLimits limits;
    std::uint32_t idleExitSeconds = 60;        // socket-activated daemon: exit after this long idle
    // A per-user instance (multi-user mode) rather than the device-wide one.
    // Defaults to "not root"; the system instance, which runs as its own
    // user, sets it off in its configuration file.
    bool multiUser = false;
    // Bundles registered by path whose directory one user owns, at most:
    // each is a row and a record, and registering asks for no right.
    std::size_t maxRegisteredPerUser = 1000;
    std::string configFile;                    // the file read, empty for pure defaults
    // Without XDG_RUNTIME_DIR a non-root user's runtime files live under
    // /tmp/tvd-<uid>, named here; load() makes it or refuses it unless it is
    // a directory of this user with mode 0700.
    std::string fallbackRuntimeRoot;

    // Defaults for the calling user.
    static PlatformConfig defaults();
    // Defaults, overridden by the file that TVD_CONFIG names (if set).
    static Result<PlatformConfig> load();
    // Makes `path` (mode 0700) when missing; fails unless it then is a
    // directory (not a link) owned by this user with mode 0700, so that no
    // other user can have placed it to take the names inside.
    static MaybeError ensurePrivateDirectory(const std::string& path);
    // Defaults overridden by the given file.
    static Result<PlatformConfig> loadFile(const std::string& path);
    // Defaults overridden by configuration text; relative paths are taken
    // relative to `baseDir`.
    static Result<PlatformConfig> parse(std::string_view text, const std::string& baseDir);
};

} // namespace tv::platform
