// tvd_load: a load generator for a running tvd.
//
//   tvd_load --service PATH [--clients N] [--requests M] [--window W] [--pid PID]
//
// N clients (connections) each send M "bulk" requests, keeping at most W
// unanswered at a time, and wait for every reply. Prints the throughput, the
// latency percentiles of the replies and, given the daemon's pid, its
// resident memory before and after. Traffic goes only to the named local
// socket; the run is bounded by the request count.
#include "Tarvik/TvDaemonClient.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/PlatformConfig.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace tv;
using Clock = std::chrono::steady_clock;

static long rssKiB(long pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

int main(int argc, char** argv)
{
    std::string service;
    int clients = 8, requests = 5000, window = 32;
    long pid = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--service")
            service = argv[i + 1];
        else if (a == "--clients")
            clients = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--requests")
            requests = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--window")
            window = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--pid")
            pid = std::atol(argv[i + 1]);
    }
    if (service.empty()) {
        std::fprintf(stderr, "usage: tvd_load --service PATH [--clients N] [--requests M] [--window W] [--pid PID]\n");
        return 2;
    }
    auto config = platform::PlatformConfig::load();
    if (!config) {
        std::fprintf(stderr, "tvd_load: %s\n", config.error().localizedDescription().c_str());
        return 2;
    }
    auto vyn = platform::LinuxVynService::create(*config);
    long rssBefore = pid ? rssKiB(pid) : -1;

    std::mutex mutex;
    std::vector<double> latencies;
    latencies.reserve(static_cast<std::size_t>(clients) * static_cast<std::size_t>(requests));
    std::atomic<int> errors{0};
    auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&] {
            TvDaemonClient client(vyn, service.c_str());
            std::mutex m;
            std::condition_variable cv;
            int inFlight = 0, done = 0;
            std::vector<double> mine;
            mine.reserve(static_cast<std::size_t>(requests));
            for (int r = 0; r < requests; ++r) {
                {
                    std::unique_lock lock(m);
                    cv.wait(lock, [&] { return inFlight < window; });
                    ++inFlight;
                }
                auto sent = Clock::now();
                client.bulkPluginsReply(0, [&, sent](const platform::VynEvent& answer) {
                    double us = std::chrono::duration<double, std::micro>(Clock::now() - sent).count();
                    if (TvDaemonClient::errorInReply(answer))
                        ++errors;
                    std::lock_guard lock(m);
                    mine.push_back(us);
                    --inFlight;
                    ++done;
                    cv.notify_all();
                });
            }
            std::unique_lock lock(m);
            cv.wait(lock, [&] { return done == requests; });
            std::lock_guard all(mutex);
            latencies.insert(latencies.end(), mine.begin(), mine.end());
        });
    }
    for (auto& t : threads)
        t.join();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::sort(latencies.begin(), latencies.end());
    auto pct = [&](double p) { return latencies[static_cast<std::size_t>(p * static_cast<double>(latencies.size() - 1))]; };
    std::printf("clients %d, requests %zu, window %d: %.0f requests/s in %.2f s, errors %d\n", clients,
                latencies.size(), window, static_cast<double>(latencies.size()) / seconds, seconds, errors.load());
    std::printf("latency us: p50 %.0f  p90 %.0f  p99 %.0f  max %.0f\n", pct(0.5), pct(0.9), pct(0.99),
                latencies.back());
    if (pid)
        std::printf("daemon RSS KiB: before %ld, after %ld\n", rssBefore, rssKiB(pid));
    return errors.load() ? 1 : 0;
}
