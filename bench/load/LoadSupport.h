// What the daemon-level benchmarks share: timing figures, whole reads and
// writes on a socket, one frame at a time, and a tvd started on a scratch
// platform tree.
#pragma once

#include "platform/ipc/VynFrame.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tv::bench {

using Clock = std::chrono::steady_clock;

inline double micros(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

inline double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[static_cast<std::size_t>(p * static_cast<double>(v.size() - 1))];
}

inline double median(std::vector<double> v)
{
    return percentile(std::move(v), 0.5);
}

inline bool readExact(int fd, std::uint8_t* p, std::size_t n)
{
    while (n > 0) {
        ssize_t r = ::read(fd, p, n);
        if (r <= 0) {
            if (r < 0 && errno == EINTR)
                continue;
            return false;
        }
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

inline bool writeAll(int fd, const std::uint8_t* p, std::size_t n)
{
    while (n > 0) {
        ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL);
        if (w <= 0) {
            if (w < 0 && errno == EINTR)
                continue;
            return false;
        }
        p += w;
        n -= static_cast<std::size_t>(w);
    }
    return true;
}

// Reads one frame; false at end of stream or on a header that is not one.
inline bool readFrame(int fd, Bytes& frame)
{
    using platform::VynFrame;
    frame.resize(VynFrame::kHeaderSize);
    if (!readExact(fd, frame.data(), VynFrame::kHeaderSize))
        return false;
    auto header =
        VynFrame::parseHeader(std::span<const std::uint8_t, VynFrame::kHeaderSize>(frame.data(), VynFrame::kHeaderSize));
    if (!header)
        return false;
    frame.resize(header->frameSize());
    return readExact(fd, frame.data() + VynFrame::kHeaderSize, frame.size() - VynFrame::kHeaderSize);
}

// The times, in microseconds, of `rounds` round trips of `frame` out and one
// frame back on `fd`, one outstanding; `reply` receives the last frame back.
inline std::vector<double> frameRoundTrips(int fd, const Bytes& frame, int rounds, Bytes& reply)
{
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        auto t = Clock::now();
        if (!writeAll(fd, frame.data(), frame.size()) || !readFrame(fd, reply))
            break;
        times.push_back(micros(Clock::now() - t));
    }
    return times;
}

inline int connectTo(const std::string& path)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Starts `tvd` on `socket` with a platform tree under `dir` (applications in
// dir/apps, system plug-ins in dir/System/Library/PlugIns), its log in
// dir/tvd.log, and waits up to `wait` for it to accept connections; exits
// the benchmark when it does not come up.
// `extraConfig`: further configuration lines, each ending in a newline.
inline pid_t startTvd(const std::string& tvd, const std::string& dir, const std::string& socket,
                      std::chrono::seconds wait = std::chrono::seconds(10), const std::string& extraConfig = "")
{
    std::string conf = dir + "/tvd.conf";
    std::filesystem::create_directories(dir + "/vyn");
    std::ofstream(conf) << "socket_dir = " << dir << "/vyn\nruntime_dir = " << dir << "/run\nregistry_database = " << dir
                        << "/registry.sqlite\ncontainers_root = " << dir << "/containers\napplication_roots = " << dir
                        << "/apps\npreferences_dir = " << dir << "/preferences\nprivacy_grants = " << dir
                        << "/grants.vlist\nglobal_annotations = " << dir << "/Annotations\nsystem_volume_root = " << dir
                        << "/System\nsystem_plugins_dir = " << dir << "/System/Library/PlugIns\n"
                        << extraConfig;
    ::setenv("TVD_CONFIG", conf.c_str(), 1);
    pid_t child = ::fork();
    if (child == 0) {
        std::string log = dir + "/tvd.log";
        if (!std::freopen(log.c_str(), "w", stderr))
            ::_exit(126);
        ::execl(tvd.c_str(), tvd.c_str(), "-S", socket.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    for (auto deadline = Clock::now() + wait; Clock::now() < deadline;) {
        int fd = connectTo(socket);
        if (fd >= 0) {
            ::close(fd);
            return child;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    std::fprintf(stderr, "tvd did not come up (see %s/tvd.log)\n", dir.c_str());
    ::kill(child, SIGKILL);
    std::exit(1);
}

} // namespace tv::bench
