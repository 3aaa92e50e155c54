#include "platform/PlatformConfig.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

static std::string envOr(const char* name, const std::string& fallback)
{
    const char* v = std::getenv(name);
    return v && *v == '/' ? std::string(v) : fallback;
}

PlatformConfig PlatformConfig::defaults()
{
    PlatformConfig c;
    c.systemVolumeRoot = "/System/";
    c.systemPlugInsDir = "/System/Library/PlugIns";
    c.sdkDir = "/System/Library/ExtensionSDKs";
    c.typesDir = "/System/Library/Types";
    c.entitlementsDropInDir = "/etc/tvd/entitlements.d";
    c.globalAnnotationsFile = "/var/db/Tarvik-Annotations";
    c.multiUser = ::geteuid() != 0;
    if (::geteuid() == 0) {
        c.socketDir = "/run/vyn";
        c.runtimeDir = "/run/tvd";
        c.applicationRoots = {"/Applications"};
        c.registryDatabase = "/var/lib/tvd/registry.sqlite";
        c.containersRoot = "/var/lib/tvd/containers";
        c.preferencesDir = "/etc/tvd/preferences";
        c.privacyGrantsFile = "/var/lib/tvd/privacy-grants.vlist";
    } else {
        std::string home = envOr("HOME", "/tmp");
        std::string runtime = envOr("XDG_RUNTIME_DIR", "");
        if (runtime.empty())
            runtime = c.fallbackRuntimeRoot = "/tmp/tvd-" + std::to_string(::getuid());
        std::string data = envOr("XDG_DATA_HOME", home + "/.local/share");
        std::string config = envOr("XDG_CONFIG_HOME", home + "/.config");
        c.socketDir = runtime + "/vyn";
        c.runtimeDir = runtime + "/tvd";
        c.applicationRoots = {"/Applications", home + "/Applications"};
        c.registryDatabase = data + "/tvd/registry.sqlite";
        c.containersRoot = data + "/containers";
        c.preferencesDir = config + "/tvd/preferences";
        c.privacyGrantsFile = data + "/tvd/privacy-grants.vlist";
    }
    return c;
}

Result<PlatformConfig> PlatformConfig::load()
{
    const char* path = std::getenv("TVD_CONFIG");
    Result<PlatformConfig> r = path && *path ? loadFile(path) : Result<PlatformConfig>(defaults());
    if (!r || r->fallbackRuntimeRoot.empty())
        return r;
    std::string prefix = r->fallbackRuntimeRoot + "/";
    if (r->socketDir.rfind(prefix, 0) == 0 || r->runtimeDir.rfind(prefix, 0) == 0)
        if (auto err = ensurePrivateDirectory(r->fallbackRuntimeRoot))
            return *err;
    return r;
}

MaybeError PlatformConfig::ensurePrivateDirectory(const std::string& path)
{
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return makeError(errno, "cannot create " + path + ": " + std::strerror(errno));
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0)
        return makeError(errno, "cannot examine " + path + ": " + std::strerror(errno));
    if (!S_ISDIR(st.st_mode) || st.st_uid != ::geteuid() || (st.st_mode & 07777) != 0700) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        return makeError(EPERM, path + " is not a private directory of uid " + std::to_string(::geteuid()) +
                                    " (owner " + std::to_string(st.st_uid) + ", mode " + mode +
                                    (S_ISDIR(st.st_mode) ? "" : ", not a directory") + "): refusing to use it");
    }
    return std::nullopt;
}

VynLimits VynLimits::fittedToDescriptors(std::uint64_t descriptors) const
{
    VynLimits fitted = *this;
    std::uint64_t budget = descriptors > kReservedDescriptors
                               ? (descriptors - kReservedDescriptors) / 2
                               : 1;
    fitted.maxConnections = static_cast<std::size_t>(std::min<std::uint64_t>(maxConnections, std::max<std::uint64_t>(budget, 1)));
    if (fitted.maxConnections < maxConnections)
        fitted.maxConnectionsPerUid =
            std::min(maxConnectionsPerUid, std::max<std::size_t>(fitted.maxConnections / 8, 1));
    return fitted;
}

Result<PlatformConfig> PlatformConfig::loadFile(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        return makeError(ENOENT, "cannot read configuration file " + path + ": " + std::strerror(errno));
    std::stringstream ss;
    ss << in.rdbuf();
    std::string dir = ".";
    if (auto slash = path.rfind('/'); slash != std::string::npos)
        dir = slash == 0 ? "/" : path.substr(0, slash);
    auto r = parse(ss.str(), dir);
    if (r)
        r->configFile = path;
    return r;
}

static std::string trim(std::string_view s)
{
    std::size_t b = 0, e = s.size();
    while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\r'))
        ++b;
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r'))
        --e;
    return std::string(s.substr(b, e - b));
}

Result<PlatformConfig> PlatformConfig::parse(std::string_view text, const std::string& baseDir)
{
    PlatformConfig c = defaults();
    auto absolute = [&](const std::string& p) { return p.empty() || p[0] == '/' ? p : baseDir + "/" + p; };
    std::size_t lineNo = 0;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t nl = text.find('\n', pos);
        std::string_view raw = text.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos);
        pos = nl == std::string_view::npos ? text.size() + 1 : nl + 1;
        ++lineNo;
        std::string line = trim(raw);
        if (line.empty() || line[0] == '#')
            continue;
        auto eq = line.find('=');
        auto where = "configuration line " + std::to_string(lineNo);
        if (eq == std::string::npos)
            return makeError(EINVAL, where + ": expected key = value");
        std::string key = trim(std::string_view(line).substr(0, eq));
        std::string value = trim(std::string_view(line).substr(eq + 1));
        auto number = [&](std::uint64_t& out, std::uint64_t max) -> MaybeError {
            auto [p, ec] = std::from_chars(value.data(), value.data() + value.size(), out);
            if (ec != std::errc() || p != value.data() + value.size() || out > max)
                return makeError(EINVAL, where + ": bad number for " + key);
            return std::nullopt;
        };
        std::uint64_t n = 0;
        MaybeError err;
        if (key == "socket_dir")
            c.socketDir = absolute(value);
        else if (key == "runtime_dir")
            c.runtimeDir = absolute(value);
        else if (key == "application_roots") {
            c.applicationRoots.clear();
            std::size_t s = 0;
            while (s <= value.size()) {
                auto colon = value.find(':', s);
                std::string part = value.substr(s, colon == std::string::npos ? std::string::npos : colon - s);
                if (!part.empty())
                    c.applicationRoots.push_back(absolute(part));
                if (colon == std::string::npos)
                    break;
                s = colon + 1;
            }
        } else if (key == "system_volume_root") {
            c.systemVolumeRoot = absolute(value);
            if (!c.systemVolumeRoot.empty() && c.systemVolumeRoot.back() != '/')
                c.systemVolumeRoot += '/';
        } else if (key == "system_plugins_dir")
            c.systemPlugInsDir = absolute(value);
        else if (key == "registry_database")
            c.registryDatabase = absolute(value);
        else if (key == "containers_root")
            c.containersRoot = absolute(value);
        else if (key == "preferences_dir")
            c.preferencesDir = absolute(value);
        else if (key == "global_annotations")
            c.globalAnnotationsFile = absolute(value);
        else if (key == "sdk_dir")
            c.sdkDir = absolute(value);
        else if (key == "types_dir")
            c.typesDir = absolute(value);
        else if (key == "privacy_grants")
            c.privacyGrantsFile = absolute(value);
        else if (key == "entitlements_dir")
            c.entitlementsDropInDir = absolute(value);
        else if (key == "max_request_frame")
            err = number(n, 16u << 20), c.limits.maxRequestFrame = n;
        else if (key == "max_connections_per_uid")
            err = number(n, 1u << 20), c.limits.maxConnectionsPerUid = n;
        else if (key == "max_connections")
            err = number(n, 1u << 20), c.limits.maxConnections = n;
        else if (key == "max_in_flight")
            err = number(n, 1u << 20), c.limits.maxInFlight = n;
        else if (key == "max_queued_per_connection")
            err = number(n, 1ull << 32), c.limits.maxQueuedPerConnection = n;
        else if (key == "max_queued_per_uid")
            err = number(n, 1ull << 34), c.limits.maxQueuedPerUid = n;
        else if (key == "max_unsent_output")
            err = number(n, 1ull << 32), c.limits.maxUnsentOutput = n;
        else if (key == "incomplete_frame_timeout_ms")
            err = number(n, 3600000), c.limits.incompleteFrameTimeoutMs = static_cast<std::uint32_t>(n);
        else if (key == "idle_exit_seconds")
            err = number(n, 86400), c.idleExitSeconds = static_cast<std::uint32_t>(n);
        else if (key == "max_registered_per_user")
            err = number(n, 1u << 20), c.maxRegisteredPerUser = n;
        else if (key == "multi_user")
            err = number(n, 1), c.multiUser = n == 1;
        else
            return makeError(EINVAL, where + ": unknown key " + key);
        if (err)
            return *err;
    }
    return c;
}

} // namespace tv::platform
