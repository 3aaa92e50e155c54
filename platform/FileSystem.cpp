#include "platform/FileSystem.h"

#include "platform/PosixError.h"

#include <cerrno>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

static bool isDirectory(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

MaybeError makeDirectories(const std::string& path, unsigned mode)
{
    if (path.empty())
        return posixError(ENOENT, "create directory (empty path)");
    // Walk every prefix that ends before a "/", then the whole path.
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        std::string prefix = path.substr(0, end);
        bool last = end == std::string::npos || end + 1 >= path.size();
        if (!prefix.empty() && ::mkdir(prefix.c_str(), static_cast<mode_t>(mode)) != 0) {
            int err = errno;
            if (err != EEXIST)
                return posixError(err, "create directory " + prefix);
            if (!isDirectory(prefix))
                return posixError(ENOTDIR, "create directory " + prefix);
        }
        if (last)
            return std::nullopt;
    }
}

std::size_t removeStaleTemporaryFiles(const std::string& path)
{
    std::size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::string prefix = "." + (slash == std::string::npos ? path : path.substr(slash + 1)) + ".tmp-";
    DIR* d = ::opendir(dir.c_str());
    if (!d)
        return 0;
    std::size_t removed = 0;
    while (const dirent* e = ::readdir(d)) {
        std::string_view name = e->d_name;
        if (name.size() > prefix.size() && name.substr(0, prefix.size()) == prefix &&
            ::unlinkat(::dirfd(d), e->d_name, 0) == 0)
            ++removed;
    }
    ::closedir(d);
    return removed;
}

} // namespace tv::platform
