#include "platform/containers/LinuxContainerService.h"

#include "platform/FileSystem.h"
#include "platform/PosixError.h"

#include <cerrno>
#include <sys/stat.h>

namespace tv::platform {

LinuxContainerService::LinuxContainerService(std::string containersRoot) : root_(std::move(containersRoot))
{
    while (root_.size() > 1 && root_.back() == '/')
        root_.pop_back();
}

static bool usableIdentifier(const std::string& identifier)
{
    return !identifier.empty() && identifier.size() <= 255 && identifier != "." && identifier != ".." &&
           identifier.find('/') == std::string::npos && identifier.find('\0') == std::string::npos;
}

Result<std::string> LinuxContainerService::containerPath(std::uint64_t containerClass, const std::string& identifier,
                                                         bool create)
{
    if (!usableIdentifier(identifier))
        return posixError(EINVAL, "container identifier \"" + identifier + "\"");
    if (root_.empty())
        return posixError(ENOENT, "container (no containers root configured)");
    std::string dir = root_ + "/class-" + std::to_string(containerClass) + "/" + identifier;
    if (create) {
        if (auto err = makeDirectories(dir, 0700))
            return *err;
    } else {
        struct stat st {};
        if (::stat(dir.c_str(), &st) != 0)
            return posixError(errno, "container " + dir);
        if (!S_ISDIR(st.st_mode))
            return posixError(ENOTDIR, "container " + dir);
    }
    return dir + "/";
}

} // namespace tv::platform
