#include "platform/notify/LinuxNotificationService.h"

#include "platform/FileSystem.h"
#include "platform/PosixError.h"
#include "platform/formats/AtomicFile.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

namespace tv::platform {

namespace {

bool usableName(const std::string& name)
{
    return !name.empty() && name.front() != '.' && name.size() <= 200 && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

std::uint64_t readCounter(const std::string& path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    char buf[32];
    ssize_t n;
    do
        n = ::read(fd, buf, sizeof buf);
    while (n < 0 && errno == EINTR);
    ::close(fd);
    std::uint64_t value = 0;
    if (n > 0)
        std::from_chars(buf, buf + n, value);
    return value;
}

class LinuxObservation final : public NotificationObservation {
public:
    LinuxObservation(int inotifyFd, int stopFd, std::string name, std::string path,
                     std::shared_ptr<SerialQueue> queue, NotificationService::Handler handler)
        : inotify_(inotifyFd), stop_(stopFd)
    {
        thread_ = std::thread([this, name = std::move(name), path = std::move(path), queue = std::move(queue),
                               handler = std::move(handler)] { watch(name, path, queue, handler); });
    }

    ~LinuxObservation() override
    {
        std::uint64_t one = 1;
        (void)!::write(stop_, &one, sizeof one);
        thread_.join();
        ::close(inotify_);
        ::close(stop_);
    }

private:
    void watch(const std::string& name, const std::string& path, const std::shared_ptr<SerialQueue>& queue,
               const NotificationService::Handler& handler)
    {
        alignas(inotify_event) std::array<char, 4096> buf;
        for (;;) {
            pollfd fds[2] = {{inotify_, POLLIN, 0}, {stop_, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
                return;
            }
            if (fds[1].revents)
                return;
            bool ours = false;
            ssize_t n = ::read(inotify_, buf.data(), buf.size());
            if (n <= 0)
                continue;
            for (ssize_t off = 0; off < n;) {
                auto* ev = reinterpret_cast<const inotify_event*>(buf.data() + off);
                if (ev->len > 0 && name == ev->name)
                    ours = true;
                if (ev->mask & IN_Q_OVERFLOW)
                    ours = true; // events were lost; tell rather than miss one
                off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            }
            if (ours) {
                std::uint64_t state = readCounter(path);
                queue->async([handler, state] { handler(state); });
            }
        }
    }

    int inotify_;
    int stop_;
    std::thread thread_;
};

} // namespace

// Hosts of every user watch the daemon's notifications: the directory is
// readable and searchable by all (the counter files are 0644).
constexpr unsigned kDirectoryMode = 0755;

LinuxNotificationService::LinuxNotificationService(std::string runtimeDir) : dir_(std::move(runtimeDir) + "/notify") {}

MaybeError LinuxNotificationService::post(const std::string& name)
{
    if (!usableName(name))
        return posixError(EINVAL, "notification name \"" + name + "\"");
    if (auto err = makeDirectories(dir_, kDirectoryMode))
        return err;
    std::string path = dir_ + "/" + name;
    return writeFileAtomically(path, std::to_string(readCounter(path) + 1) + "\n", 0644);
}

std::uint64_t LinuxNotificationService::state(const std::string& name)
{
    return usableName(name) ? readCounter(dir_ + "/" + name) : 0;
}

Result<std::unique_ptr<NotificationObservation>> LinuxNotificationService::observe(
    const std::string& name, std::shared_ptr<SerialQueue> queue, Handler handler)
{
    if (!usableName(name))
        return posixError(EINVAL, "notification name \"" + name + "\"");
    if (!queue || !handler)
        return posixError(EINVAL, "observe " + name + " without a queue or handler");
    if (auto err = makeDirectories(dir_, kDirectoryMode))
        return *err;
    int in = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (in < 0)
        return posixError(errno, "inotify_init1");
    if (::inotify_add_watch(in, dir_.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR) < 0) {
        int err = errno;
        ::close(in);
        return posixError(err, "watch " + dir_);
    }
    int stop = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stop < 0) {
        int err = errno;
        ::close(in);
        return posixError(err, "eventfd");
    }
    return std::unique_ptr<NotificationObservation>(
        std::make_unique<LinuxObservation>(in, stop, name, dir_ + "/" + name, std::move(queue), std::move(handler)));
}

} // namespace tv::platform
