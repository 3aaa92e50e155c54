#include "platform/ipc/LinuxVynListener.h"

#include "platform/ipc/LinuxVynConnection.h"
#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"
#include "platform/ipc/VynSocket.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

namespace {
// After the process runs out of descriptors, accepting pauses this long
// instead of spinning on a listening socket that stays readable.
constexpr auto kAcceptRetryDelay = std::chrono::milliseconds(100);
} // namespace

LinuxVynListener::LinuxVynListener(Setup setup) : setup_(std::move(setup)) {}

LinuxVynListener::~LinuxVynListener()
{
    closeSocket();
}

void LinuxVynListener::setConnectionHandler(ConnectionHandler handler)
{
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

void LinuxVynListener::resume()
{
    if (resumeRequested_.exchange(true))
        return;
    auto self = shared_from_this();
    setup_.runtime->post([self] {
        if (self->setup_.fd < 0)
            return;
        self->setup_.runtime->watch(self->setup_.fd, self->accepting_ ? EPOLLIN : 0u, self);
        self->watched_ = true;
    });
}

void LinuxVynListener::setAccepting(bool accepting)
{
    if (accepting_ == accepting)
        return;
    accepting_ = accepting;
    if (watched_ && !retryTimer_)
        setup_.runtime->modify(setup_.fd, accepting ? EPOLLIN : 0u);
}

void LinuxVynListener::handleEvents(std::uint32_t)
{
    for (int n = 0; n < 64 && accepting_ && !retryTimer_; ++n) {
        int fd = ::accept4(setup_.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            acceptOne(fd);
            continue;
        }
        int e = errno;
        if (e == EINTR || e == ECONNABORTED || e == EPROTO)
            continue;
        if (e == EAGAIN || e == EWOULDBLOCK)
            return;
        platformLog(LogLevel::Error, "vyn", "accept on %{public}s failed: %{public}s", setup_.path,
                    *posixError(e, "accept").description);
        setup_.runtime->modify(setup_.fd, 0);
        std::weak_ptr<LinuxVynListener> weak = weak_from_this();
        retryTimer_ = setup_.runtime->addTimer(VynRuntime::Clock::now() + kAcceptRetryDelay, [weak] {
            if (auto self = weak.lock()) {
                self->retryTimer_.reset();
                if (self->watched_)
                    self->setup_.runtime->modify(self->setup_.fd, self->accepting_ ? EPOLLIN : 0u);
            }
        });
        return;
    }
}

void LinuxVynListener::acceptOne(int fd)
{
    AuditToken token = peerAuditToken(fd);
    auto admitted = setup_.table->admit(token.uid);
    if (auto* refusal = std::get_if<std::string>(&admitted)) {
        platformLog(LogLevel::Default, "vyn", "refused connection from pid %d uid %u on %{public}s: %{public}s",
                    token.pid, token.uid, setup_.path, *refusal);
        if (token.pidfd >= 0)
            ::close(token.pidfd);
        ::close(fd);
        return;
    }
    LinuxVynConnection::Setup cs;
    cs.runtime = setup_.runtime;
    cs.queue = setup_.queue;
    cs.limits = setup_.limits;
    cs.role = LinuxVynConnection::Role::Accepted;
    cs.fd = fd;
    cs.auditToken = token;
    cs.path = setup_.path;
    cs.slot = std::move(std::get<std::unique_ptr<VynConnectionTable::Slot>>(admitted));
    auto connection = std::make_shared<LinuxVynConnection>(std::move(cs));
    setup_.queue->async([self = shared_from_this(), connection] {
        ConnectionHandler handler;
        {
            std::lock_guard lock(self->mutex_);
            handler = self->handler_;
        }
        if (handler)
            handler(connection);
    });
}

void LinuxVynListener::shutdown()
{
    if (retryTimer_) {
        setup_.runtime->cancelTimer(*retryTimer_);
        retryTimer_.reset();
    }
    if (watched_) {
        watched_ = false;
        setup_.runtime->unwatch(setup_.fd);
    }
    closeSocket();
}

void LinuxVynListener::closeSocket()
{
    if (setup_.fd < 0)
        return;
    ::close(setup_.fd);
    setup_.fd = -1;
    struct stat st{};
    if (setup_.removeOnClose && ::lstat(setup_.path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) &&
        st.st_dev == setup_.device && st.st_ino == setup_.inode)
        ::unlink(setup_.path.c_str());
}

} // namespace tv::platform
