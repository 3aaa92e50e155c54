#include "platform/sdk/LinuxExtensionSdkRegistry.h"

#include "platform/log/PlatformLog.h"
#include "platform/formats/VlistParser.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace tv::platform {

namespace {

constexpr const char* kLogCategory = "sdk-registry";

} // namespace

LinuxExtensionSdkRegistry::LinuxExtensionSdkRegistry(std::string sdkDir) : sdkDir_(std::move(sdkDir)) {}

std::string LinuxExtensionSdkRegistry::pathForIdentifier(const std::string& extensionPointIdentifier) const
{
    const std::string& id = extensionPointIdentifier;
    if (id.empty() || id == "." || id == ".." || id.find('/') != std::string::npos ||
        id.find('\0') != std::string::npos)
        return {};
    std::string path = sdkDir_;
    if (path.empty() || path.back() != '/')
        path += '/';
    path += id;
    path += ".vlist";
    return path;
}

std::optional<Value> LinuxExtensionSdkRegistry::lookUp(const std::string& extensionPointIdentifier)
{
    std::string path = pathForIdentifier(extensionPointIdentifier);
    if (path.empty())
        return std::nullopt;

    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            platformLog(LogLevel::Error, kLogCategory, "cannot reach SDK file %{public}s: %{public}s", path,
                        std::strerror(errno));
        return std::nullopt;
    }
    if (!S_ISREG(st.st_mode)) {
        platformLog(LogLevel::Error, kLogCategory, "SDK file %{public}s is not a regular file", path);
        return std::nullopt;
    }

    Result<Value> contents = readVlistFile(path);
    if (!contents) {
        platformLog(LogLevel::Error, kLogCategory, "cannot read SDK file %{public}s: %{public}s", path,
                    contents.error().localizedDescription());
        return std::nullopt;
    }
    if (!contents->isDictionary()) {
        platformLog(LogLevel::Error, kLogCategory, "SDK file %{public}s does not hold a dictionary", path);
        return std::nullopt;
    }
    return std::move(contents).value();
}

} // namespace tv::platform
