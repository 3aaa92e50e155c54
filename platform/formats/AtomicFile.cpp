#include "platform/formats/AtomicFile.h"

#include "base/Uuid.h"
#include "platform/PosixError.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

namespace {

MaybeError writeAll(int fd, std::string_view data, const std::string& path)
{
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return posixError(errno, "write " + path);
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return std::nullopt;
}

std::string randomSuffix()
{
    // Only uniqueness matters (O_EXCL guards against collisions); the UUID
    // source is already at hand.
    return Uuid::random().string().substr(0, 8);
}

} // namespace

MaybeError writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode)
{
    std::size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base.empty())
        return posixError(EISDIR, "write " + path);

    std::string temp;
    int fd = -1;
    for (int attempt = 0; fd < 0; ++attempt) {
        temp = dir + "/." + base + ".tmp-" + randomSuffix();
        fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode));
        if (fd < 0 && (errno != EEXIST || attempt == 16))
            return posixError(errno, "create " + temp);
    }

    auto abandon = [&](TvError error) -> MaybeError {
        if (fd >= 0)
            ::close(fd);
        ::unlink(temp.c_str());
        return error;
    };
    if (auto err = writeAll(fd, contents, temp))
        return abandon(*err);
    if (::fsync(fd) != 0)
        return abandon(posixError(errno, "fsync " + temp));
    int closed = ::close(fd);
    fd = -1;
    if (closed != 0)
        return abandon(posixError(errno, "close " + temp));
    if (::rename(temp.c_str(), path.c_str()) != 0)
        return abandon(posixError(errno, "rename " + temp + " to " + path));

    // The new name is durable only once the directory is.
    int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0)
        return posixError(errno, "open directory " + dir);
    int synced = ::fsync(dirFd);
    int err = errno;
    ::close(dirFd);
    if (synced != 0)
        return posixError(err, "fsync directory " + dir);
    return std::nullopt;
}

} // namespace tv::platform
