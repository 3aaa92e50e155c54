// tvd_latency: the request path of tvd measured against baselines run beside
// it in the same process run, reported as ratios.
//
//   tvd_latency --tvd PATH [--rounds N] [--clients C] [--requests R] [--window W] [--repeat K]
//
// Baselines, all moving the same request and reply bytes as a small "bulk"
// request to tvd:
//   ping-pong  two processes echo the bytes over a Unix socket pair: the
//              floor for one round trip;
//   echo       a minimal daemon with one I/O thread (epoll) and one worker
//              thread, handing each request to the worker and its reply back;
// and tvd itself (started here on a private socket), through a raw-protocol
// client and through the client library (TvDaemonClient: a caller waiting
// for the answer, and a completion on its reply queue). Latency is the
// median round trip with one request outstanding; load is C connections
// driven by one raw-protocol generator thread, W requests in flight each,
// R requests per connection. Each measurement is repeated K times,
// interleaved, and the median of the repeats is reported.
#include "Tarvik/TvDaemonClient.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/ipc/VynFrame.h"
#include "LoadSupport.h"
#include "platform/PlatformConfig.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <vector>

using namespace tv;
using namespace tv::bench;
using platform::Message;
using platform::VynFrame;

namespace {

Bytes gRequest; // a "bulk" request frame, message id 1
Bytes gReply;   // its reply frame

std::uint32_t bodyLength(const std::uint8_t* header)
{
    return static_cast<std::uint32_t>(header[4]) | static_cast<std::uint32_t>(header[5]) << 8 |
           static_cast<std::uint32_t>(header[6]) << 16 | static_cast<std::uint32_t>(header[7]) << 24;
}

std::uint64_t field64(const std::uint8_t* p)
{
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v |= static_cast<std::uint64_t>(p[i]) << (8 * i);
    return v;
}

void setField64(std::uint8_t* p, std::uint64_t v)
{
    for (int i = 0; i < 8; ++i)
        p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

// ---------------------------------------------------------------------------
// Baseline 1: ping-pong between two processes.

std::vector<double> pingPong(int rounds)
{
    int sv[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv);
    pid_t child = ::fork();
    if (child == 0) {
        ::close(sv[0]);
        Bytes frame;
        while (readFrame(sv[1], frame))
            if (!writeAll(sv[1], gReply.data(), gReply.size()))
                break;
        ::_exit(0);
    }
    ::close(sv[1]);
    Bytes frame;
    std::vector<double> out = frameRoundTrips(sv[0], gRequest, rounds, frame);
    ::close(sv[0]);
    ::waitpid(child, nullptr, 0);
    return out;
}

// ---------------------------------------------------------------------------
// Baseline 2: a minimal echo daemon, one I/O thread and one worker thread.

[[noreturn]] void echoDaemon(int listenFd)
{
    int ep = ::epoll_create1(EPOLL_CLOEXEC);
    int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event ev{EPOLLIN, {}};
    ev.data.fd = listenFd;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, listenFd, &ev);
    ev.data.fd = wake;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, wake, &ev);

    struct Job {
        int fd;
        std::uint64_t id;
    };
    std::mutex mutex;
    std::condition_variable cv;
    std::deque<Job> inbox;
    std::deque<std::pair<int, Bytes>> outbox;
    std::thread worker([&] {
        for (;;) {
            Job job;
            {
                std::unique_lock lock(mutex);
                cv.wait(lock, [&] { return !inbox.empty(); });
                job = inbox.front();
                inbox.pop_front();
            }
            Bytes reply = gReply;
            setField64(reply.data() + 16, job.id);
            {
                std::lock_guard lock(mutex);
                outbox.emplace_back(job.fd, std::move(reply));
            }
            std::uint64_t one = 1;
            (void)!::write(wake, &one, sizeof one);
        }
    });
    std::unordered_map<int, Bytes> buffers;
    epoll_event events[64];
    for (;;) {
        int n = ::epoll_wait(ep, events, 64, -1);
        for (int i = 0; i < n; ++i) {
            int fd = events[i].data.fd;
            if (fd == listenFd) {
                int c = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (c >= 0) {
                    epoll_event cev{EPOLLIN, {}};
                    cev.data.fd = c;
                    ::epoll_ctl(ep, EPOLL_CTL_ADD, c, &cev);
                }
            } else if (fd == wake) {
                std::uint64_t count;
                (void)!::read(wake, &count, sizeof count);
                std::deque<std::pair<int, Bytes>> batch;
                {
                    std::lock_guard lock(mutex);
                    batch.swap(outbox);
                }
                for (auto& [c, bytes] : batch)
                    writeAll(c, bytes.data(), bytes.size());
            } else {
                Bytes& in = buffers[fd];
                std::uint8_t chunk[65536];
                ssize_t r = ::read(fd, chunk, sizeof chunk);
                if (r <= 0) {
                    if (r < 0 && errno == EAGAIN)
                        continue;
                    ::epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
                    ::close(fd);
                    buffers.erase(fd);
                    continue;
                }
                in.insert(in.end(), chunk, chunk + r);
                std::size_t at = 0;
                std::vector<Job> jobs;
                while (in.size() - at >= VynFrame::kHeaderSize) {
                    std::size_t size = VynFrame::kHeaderSize + bodyLength(in.data() + at);
                    if (in.size() - at < size)
                        break;
                    jobs.push_back(Job{fd, field64(in.data() + at + 8)});
                    at += size;
                }
                in.erase(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(at));
                if (!jobs.empty()) {
                    std::lock_guard lock(mutex);
                    inbox.insert(inbox.end(), jobs.begin(), jobs.end());
                    cv.notify_one();
                }
            }
        }
    }
}

pid_t startEcho(const std::string& path)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 1024) != 0) {
        std::perror("echo daemon");
        std::exit(1);
    }
    pid_t child = ::fork();
    if (child == 0)
        echoDaemon(fd);
    ::close(fd);
    return child;
}

// ---------------------------------------------------------------------------
// Clients.

// Round trips with one request outstanding on a raw connection.
std::vector<double> rawLatency(const std::string& path, int rounds)
{
    int fd = connectTo(path);
    std::vector<double> out;
    if (fd < 0)
        return out;
    Bytes request = gRequest, frame;
    for (int i = 0; i < rounds; ++i) {
        setField64(request.data() + 8, static_cast<std::uint64_t>(i) + 1);
        auto t = Clock::now();
        if (!writeAll(fd, request.data(), request.size()) || !readFrame(fd, frame))
            break;
        out.push_back(micros(Clock::now() - t));
    }
    ::close(fd);
    return out;
}

// Round trips with one request outstanding through the client library: the
// caller waits for each answer (sendAndWait).
std::vector<double> libraryLatency(const std::shared_ptr<platform::VynService>& vyn, const std::string& path,
                                   int rounds)
{
    TvDaemonClient client(vyn, path.c_str());
    std::vector<double> out;
    for (int i = 0; i < rounds; ++i) {
        auto t = Clock::now();
        client.sendAndWait(client.bulkPluginsRequest(0));
        out.push_back(micros(Clock::now() - t));
    }
    return out;
}

// The same with a completion, which runs on the client's reply queue and
// wakes the waiting caller.
std::vector<double> completionLatency(const std::shared_ptr<platform::VynService>& vyn, const std::string& path,
                                      int rounds)
{
    TvDaemonClient client(vyn, path.c_str());
    std::vector<double> out;
    std::mutex m;
    std::condition_variable cv;
    for (int i = 0; i < rounds; ++i) {
        bool done = false;
        auto t = Clock::now();
        client.bulkPluginsReply(0, [&](const platform::VynEvent&) {
            std::lock_guard lock(m);
            done = true;
            cv.notify_one();
        });
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return done; });
        out.push_back(micros(Clock::now() - t));
    }
    return out;
}

struct Load {
    double perSecond = 0;
    std::vector<double> latencies;
};

// C raw connections, W requests in flight each, R requests per connection,
// driven by this one thread.
Load rawLoad(const std::string& path, int clients, int requests, int window)
{
    struct Conn {
        int fd = -1;
        int sent = 0, received = 0;
        Bytes in;
        std::unordered_map<std::uint64_t, Clock::time_point> started;
    };
    std::vector<Conn> conns;
    int ep = ::epoll_create1(EPOLL_CLOEXEC);
    for (int c = 0; c < clients; ++c) {
        int fd = connectTo(path);
        if (fd < 0) {
            std::fprintf(stderr, "tvd_latency: cannot connect to %s\n", path.c_str());
            std::exit(1);
        }
        Conn conn;
        conn.fd = fd;
        conns.push_back(std::move(conn));
    }
    for (std::size_t c = 0; c < conns.size(); ++c) {
        epoll_event ev{EPOLLIN, {}};
        ev.data.u64 = c;
        ::epoll_ctl(ep, EPOLL_CTL_ADD, conns[c].fd, &ev);
    }
    Load load;
    load.latencies.reserve(static_cast<std::size_t>(clients) * static_cast<std::size_t>(requests));
    auto sendSome = [&](Conn& c) {
        Bytes batch;
        auto now = Clock::now();
        while (c.sent < requests && c.sent - c.received < window) {
            std::uint64_t id = static_cast<std::uint64_t>(++c.sent);
            std::size_t at = batch.size();
            batch.insert(batch.end(), gRequest.begin(), gRequest.end());
            setField64(batch.data() + at + 8, id);
            c.started[id] = now;
        }
        if (!batch.empty())
            writeAll(c.fd, batch.data(), batch.size());
    };
    auto start = Clock::now();
    for (auto& c : conns)
        sendSome(c);
    std::size_t total = static_cast<std::size_t>(clients) * static_cast<std::size_t>(requests);
    epoll_event events[64];
    std::uint8_t chunk[65536];
    while (load.latencies.size() < total) {
        int n = ::epoll_wait(ep, events, 64, 10000);
        if (n <= 0) {
            std::fprintf(stderr, "tvd_latency: the daemon stopped answering\n");
            std::exit(1);
        }
        for (int i = 0; i < n; ++i) {
            Conn& c = conns[events[i].data.u64];
            ssize_t r = ::read(c.fd, chunk, sizeof chunk);
            if (r <= 0) {
                std::fprintf(stderr, "tvd_latency: connection closed by the daemon\n");
                std::exit(1);
            }
            auto now = Clock::now();
            c.in.insert(c.in.end(), chunk, chunk + r);
            std::size_t at = 0;
            while (c.in.size() - at >= VynFrame::kHeaderSize) {
                std::size_t size = VynFrame::kHeaderSize + bodyLength(c.in.data() + at);
                if (c.in.size() - at < size)
                    break;
                std::uint64_t id = field64(c.in.data() + at + 16);
                auto it = c.started.find(id);
                if (it != c.started.end()) {
                    load.latencies.push_back(micros(now - it->second));
                    c.started.erase(it);
                }
                ++c.received;
                at += size;
            }
            c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(at));
            sendSome(c);
        }
    }
    load.perSecond = static_cast<double>(total) / std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& c : conns)
        ::close(c.fd);
    ::close(ep);
    return load;
}

} // namespace

int main(int argc, char** argv)
{
    std::string tvd;
    int rounds = 5000, clients = 64, requests = 1000, window = 8, repeat = 3;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--tvd")
            tvd = argv[i + 1];
        else if (a == "--rounds")
            rounds = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--clients")
            clients = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--requests")
            requests = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--window")
            window = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--repeat")
            repeat = std::max(1, std::atoi(argv[i + 1]));
    }
    if (tvd.empty()) {
        std::fprintf(stderr, "usage: tvd_latency --tvd PATH [--rounds N] [--clients C] [--requests R] "
                             "[--window W] [--repeat K]\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);

    Message request;
    request.set("request", Value("bulk"));
    request.set("version", Value(std::uint64_t{3}));
    request.set("flags", Value(std::uint64_t{0}));
    gRequest = VynFrame::encode(request, true, 64).value();
    VynFrame::setMessageId(gRequest, 1);
    request.setMessageId(1);
    request.setExpectsReply(true);
    gReply = VynFrame::encode(*Message::createReply(request), false, 64).value();
    VynFrame::setMessageId(gReply, 1);

    char templ[] = "/tmp/tvd-latency-XXXXXX";
    std::string dir = ::mkdtemp(templ);
    std::string echoPath = dir + "/echo", tvdPath = dir + "/vyn/tvd";
    pid_t echo = startEcho(echoPath);
    pid_t daemon = startTvd(tvd, dir, tvdPath);
    auto config = platform::PlatformConfig::load();
    auto vyn = std::shared_ptr<platform::VynService>(platform::LinuxVynService::create(*config));

    std::vector<double> pp, ec, raw, lib, done, echoTput, tvdTput, echoP99, tvdP99;
    for (int k = 0; k < repeat; ++k) {
        std::fprintf(stderr, "tvd_latency: run %d of %d\n", k + 1, repeat);
        pp.push_back(median(pingPong(rounds)));
        ec.push_back(median(rawLatency(echoPath, rounds)));
        raw.push_back(median(rawLatency(tvdPath, rounds)));
        lib.push_back(median(libraryLatency(vyn, tvdPath, rounds)));
        done.push_back(median(completionLatency(vyn, tvdPath, rounds)));
        Load e = rawLoad(echoPath, clients, requests, window);
        Load t = rawLoad(tvdPath, clients, requests, window);
        echoTput.push_back(e.perSecond);
        tvdTput.push_back(t.perSecond);
        echoP99.push_back(percentile(e.latencies, 0.99));
        tvdP99.push_back(percentile(t.latencies, 0.99));
    }
    ::kill(daemon, SIGTERM);
    ::kill(echo, SIGKILL);
    ::waitpid(daemon, nullptr, 0);
    ::waitpid(echo, nullptr, 0);

    double ppm = median(pp);
    std::printf("round trip p50 (median of %d runs of %d):\n", repeat, rounds);
    std::printf("  ping-pong (two processes)   %7.1f us\n", ppm);
    std::printf("  echo daemon, raw client     %7.1f us  %.2fx ping-pong\n", median(ec), median(ec) / ppm);
    std::printf("  tvd, raw client             %7.1f us  %.2fx ping-pong\n", median(raw), median(raw) / ppm);
    std::printf("  tvd, client library         %7.1f us  %.2fx ping-pong\n", median(lib), median(lib) / ppm);
    std::printf("  tvd, library completion     %7.1f us  %.2fx ping-pong\n", median(done), median(done) / ppm);
    std::printf("load: %d clients x %d requests, %d in flight each:\n", clients, requests, window);
    std::printf("  echo daemon  %9.0f requests/s  p99 %7.0f us\n", median(echoTput), median(echoP99));
    std::printf("  tvd          %9.0f requests/s  p99 %7.0f us  throughput %.2fx echo\n", median(tvdTput),
                median(tvdP99), median(tvdTput) / median(echoTput));
    std::filesystem::remove_all(dir);
    return 0;
}
