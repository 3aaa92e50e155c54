#include "platform/ipc/LinuxVynService.h"

#include "base/InternalInconsistency.h"
#include "platform/ipc/LinuxVynConnection.h"
#include "platform/ipc/LinuxVynListener.h"
#include "platform/log/PlatformLog.h"
#include "platform/PosixError.h"
#include "platform/ipc/VynSocket.h"

#include <cerrno>
#include <fcntl.h>
#include <future>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

namespace {

// mkdir -p with mode 0755 for the directories it makes.
MaybeError makeDirectories(const std::string& dir)
{
    if (dir.empty())
        return std::nullopt;
    for (std::size_t pos = 1;; ++pos) {
        pos = dir.find('/', pos);
        std::string prefix = dir.substr(0, pos);
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST)
            return posixError(errno, "cannot create socket directory " + prefix);
        if (pos == std::string::npos)
            break;
    }
    return std::nullopt;
}

} // namespace

std::shared_ptr<LinuxVynService> LinuxVynService::create(const PlatformConfig& config, SocketActivation activation)
{
    auto runtime = VynRuntime::start();
    if (!runtime) {
        platformLog(LogLevel::Error, "vyn", "cannot start the IPC service: %{public}s",
                    runtime.error().localizedDescription());
        return nullptr;
    }
    return std::shared_ptr<LinuxVynService>(
        new LinuxVynService(config, std::move(activation), std::move(runtime).value()));
}

LinuxVynService::LinuxVynService(const PlatformConfig& config, SocketActivation activation,
                                 std::shared_ptr<VynRuntime> runtime)
    : config_(config),
      activation_(std::move(activation)),
      runtime_(std::move(runtime)),
      table_(std::make_shared<VynConnectionTable>(config.limits))
{
}

LinuxVynService::~LinuxVynService()
{
    runtime_->stop();
}

Result<std::shared_ptr<VynListener>> LinuxVynService::listen(const std::string& name,
                                                             std::shared_ptr<SerialQueue> queue)
{
    LinuxVynListener::Setup setup;
    setup.runtime = runtime_;
    setup.queue = std::move(queue);
    setup.table = table_;
    setup.limits = config_.limits;

    int inherited = activation_.take(name);
    if (inherited >= 0) {
        auto fd = adoptInheritedSocket(inherited);
        if (!fd)
            return fd.error();
        setup.fd = *fd;
        sockaddr_un addr{};
        socklen_t len = sizeof addr;
        if (::getsockname(*fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 && len > sizeof(sa_family_t) &&
            addr.sun_path[0] != '\0')
            setup.path = addr.sun_path;
        else
            setup.path = vynSocketPath(name, config_.socketDir);
    } else {
        setup.path = vynSocketPath(name, config_.socketDir);
        if (name.find('/') == std::string::npos)
            if (auto err = makeDirectories(config_.socketDir))
                return *err;
        auto fd = bindListeningSocket(setup.path, setup.device, setup.inode);
        if (!fd)
            return fd.error();
        setup.fd = *fd;
        setup.removeOnClose = true;
    }
    auto listener = std::make_shared<LinuxVynListener>(std::move(setup));
    {
        std::lock_guard lock(mutex_);
        listeners_.push_back(listener);
    }
    return std::shared_ptr<VynListener>(listener);
}

Result<int> LinuxVynService::bindListeningSocket(const std::string& path, dev_t& device, ino_t& inode)
{
    auto addr = vynSocketAddress(path);
    if (!addr)
        return addr.error();
    for (int attempt = 0;; ++attempt) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return posixError(errno, "socket");
        if (::bind(fd, reinterpret_cast<const sockaddr*>(&*addr), sizeof *addr) == 0) {
            struct stat st{};
            if (::chmod(path.c_str(), 0666) != 0 || ::listen(fd, SOMAXCONN) != 0 || ::lstat(path.c_str(), &st) != 0) {
                int e = errno;
                ::close(fd);
                ::unlink(path.c_str());
                return posixError(e, "cannot listen on " + path);
            }
            device = st.st_dev;
            inode = st.st_ino;
            return fd;
        }
        int e = errno;
        ::close(fd);
        if (e != EADDRINUSE || attempt > 0)
            return posixError(e, "cannot bind " + path);

        // Something is at the path. Only a socket nobody answers on is stale.
        struct stat st{};
        if (::lstat(path.c_str(), &st) == 0 && !S_ISSOCK(st.st_mode))
            return posixError(EADDRINUSE, path + " exists and is not a socket");
        auto probe = connectVynSocket(path);
        if (probe) {
            ::close(*probe);
            TvError err = posixError(EADDRINUSE, "");
            err.description = "address in use: " + path;
            return err;
        }
        if (probe.error().code != ECONNREFUSED && probe.error().code != ENOENT)
            return probe.error();
        if (probe.error().code == ECONNREFUSED) {
            platformLog(LogLevel::Default, "vyn", "replacing stale socket %{public}s", path);
            ::unlink(path.c_str());
        }
    }
}

Result<int> LinuxVynService::adoptInheritedSocket(int fd)
{
    int accepting = 0, type = 0, domain = 0;
    socklen_t len = sizeof(int);
    bool ok = ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &len) == 0 && accepting;
    len = sizeof(int);
    ok = ok && ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0 && type == SOCK_STREAM;
    len = sizeof(int);
    ok = ok && ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0 && domain == AF_UNIX;
    if (!ok)
        return posixError(ENOTSOCK, "inherited descriptor " + std::to_string(fd) +
                                        " is not a listening Unix stream socket");
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0)
        return posixError(errno, "fcntl on inherited socket");
    return fd;
}

std::shared_ptr<VynConnection> LinuxVynService::connect(const std::string& name, std::shared_ptr<SerialQueue> queue)
{
    LinuxVynConnection::Setup setup;
    setup.runtime = runtime_;
    setup.queue = std::move(queue);
    setup.limits = config_.limits;
    setup.role = LinuxVynConnection::Role::Client;
    setup.path = vynSocketPath(name, config_.socketDir);
    auto fd = connectVynSocket(setup.path);
    if (fd) {
        setup.fd = *fd;
        setup.auditToken = peerAuditToken(*fd);
    } else {
        setup.failure = fd.error().localizedDescription();
    }
    return std::make_shared<LinuxVynConnection>(std::move(setup));
}

void LinuxVynService::beginTransaction()
{
    transactions_.fetch_add(1, std::memory_order_relaxed);
}

void LinuxVynService::endTransaction()
{
    std::size_t before = transactions_.load(std::memory_order_relaxed);
    do {
        if (before == 0)
            raiseInternalInconsistency("keep-alive transaction ended without one open");
    } while (!transactions_.compare_exchange_weak(before, before - 1, std::memory_order_relaxed));
}

std::size_t LinuxVynService::openTransactions() const
{
    return transactions_.load(std::memory_order_relaxed);
}

bool LinuxVynService::runOnRuntime(const std::function<void()>& task)
{
    if (runtime_->isCurrent()) {
        task();
        return true;
    }
    std::promise<void> done;
    if (!runtime_->post([&] {
            task();
            done.set_value();
        }))
        return false;
    done.get_future().wait();
    return true;
}

void LinuxVynService::announceTermination()
{
    runOnRuntime([this] {
        for (const auto& connection : table_->connections())
            connection->announceTermination();
    });
}

void LinuxVynService::setAccepting(bool accepting)
{
    std::vector<std::shared_ptr<LinuxVynListener>> listeners;
    {
        std::lock_guard lock(mutex_);
        listeners = listeners_;
    }
    runOnRuntime([&] {
        for (const auto& l : listeners)
            l->setAccepting(accepting);
    });
}

} // namespace tv::platform
