// tvd_requests: annotation requests, "ready" for 50 plug-ins and the busy
// check, each measured beside a baseline run in the same process run,
// reported as ratios.
//
//   tvd_requests --tvd PATH [--rounds N] [--processes P]
//
// Annotations: tvd is started on a private socket over an annotation file
// that already holds 10,000 annotations, with one installed plug-in. An
// "annotate" (its election toggled) and a "bulk-annotate" (its "extension"
// replaced) each make the daemon merge and save the whole file; the baseline
// is a raw atomic save (temporary file, fsync, rename, fsync of the
// directory) of the same file's bytes, taken in the same round. Round trips
// go through the client library. Each request also posts the
// annotation-change notification, an atomic replace of a counter file in the
// runtime directory, which is put on tmpfs (/dev/shm) as /run is in
// production.
//
// Busy check: P sleeping child processes run, one of them a copy of sleep
// inside a plug-in bundle; the process-state service's query for that
// bundle's identifier is measured beside a raw scan that only reads the
// target of every /proc/*/exe.
//
// Files go to $TVD_BENCH_DIR, else the system's temporary directory. Each
// figure is the median of N rounds.
#include "LoadSupport.h"
#include "Tarvik/TvDaemonClient.h"
#include "platform/PlatformConfig.h"
#include "platform/formats/AtomicFile.h"
#include "platform/formats/Vlist.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/process/LinuxBundleService.h"
#include "platform/processstate/LinuxProcessStateService.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tv;
using Clock = std::chrono::steady_clock;
using tv::bench::median;
using tv::bench::micros;

namespace {

constexpr int kAnnotations = 10000;

template <class F>
double medianOf(int rounds, F f)
{
    std::vector<double> out;
    for (int i = 0; i < rounds; ++i) {
        auto t = Clock::now();
        f(i);
        out.push_back(micros(Clock::now() - t));
    }
    return median(out);
}

pid_t gDaemon = -1;   // the daemon started here, stopped when the program gives up
std::string gRuntime; // its runtime directory, removed at the end

[[noreturn]] void die(const std::string& what)
{
    std::fprintf(stderr, "tvd_requests: %s\n", what.c_str());
    if (gDaemon > 0) {
        ::kill(gDaemon, SIGKILL);
        ::waitpid(gDaemon, nullptr, 0);
    }
    std::exit(1);
}

std::string scratchDirectory()
{
    const char* base = std::getenv("TVD_BENCH_DIR");
    std::string tmpl = (base && *base ? std::string(base) : std::filesystem::temp_directory_path().string()) +
                       "/tvd-bench-requests-XXXXXX";
    if (!::mkdtemp(tmpl.data()))
        die("cannot make a scratch directory");
    return tmpl;
}

bool canConnect(const std::string& path)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

void writePlugIn(const std::string& dir, const std::string& identifier, const std::string& executable = "")
{
    std::filesystem::create_directories(dir);
    Value info{{"KbBundleIdentifier", identifier},
               {"KbBundleVersion", "1"},
               {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.bench"}}}};
    if (!executable.empty()) {
        info = info.with("KbBundleExecutable", Value("plugin"));
        std::filesystem::copy_file(executable, dir + "/plugin");
    }
    if (platform::writeVlistFileAtomically(dir + "/Info.vlist", info))
        die("cannot write " + dir);
}

// Starts tvd over `dir` with the annotation file `annotations`; its pid.
pid_t startTvd(const std::string& tvd, const std::string& dir, const std::string& socket,
               const std::string& annotations)
{
    std::string conf = dir + "/tvd.conf";
    // The runtime directory (notification counters) is per boot, on tmpfs,
    // as in production: /dev/shm when there is one.
    std::string runtime = dir + "/run";
    if (std::filesystem::is_directory("/dev/shm")) {
        runtime = "/dev/shm/" + std::filesystem::path(dir).filename().string();
        std::filesystem::create_directories(runtime);
    }
    gRuntime = runtime;
    std::filesystem::create_directories(dir + "/vyn");
    std::filesystem::create_directories(dir + "/apps");
    std::ofstream(conf) << "socket_dir = " << dir << "/vyn\nruntime_dir = " << runtime
                        << "\nregistry_database = " << dir
                        << "/registry.sqlite\ncontainers_root = " << dir << "/containers\napplication_roots = " << dir
                        << "/apps\npreferences_dir = " << dir << "/preferences\nprivacy_grants = " << dir
                        << "/grants.vlist\n";
    ::setenv("TVD_CONFIG", conf.c_str(), 1);
    ::setenv("TVD_LOG_PRIVATE", "1", 1);
    pid_t child = ::fork();
    if (child == 0) {
        std::string log = dir + "/tvd.log";
        std::freopen(log.c_str(), "w", stderr);
        ::execl(tvd.c_str(), tvd.c_str(), "-S", socket.c_str(), "-d", annotations.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    gDaemon = child;
    for (int i = 0; i < 400; ++i) {
        if (canConnect(socket))
            return child;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    die("tvd did not come up (see " + dir + "/tvd.log)");
}

platform::VynEvent roundTrip(const std::function<void(TvDaemonClient::Reply)>& send)
{
    std::promise<platform::VynEvent> answered;
    auto f = answered.get_future();
    send([&](const platform::VynEvent& a) { answered.set_value(a); });
    return f.get();
}

void check(const platform::VynEvent& answer, const char* what)
{
    if (auto error = TvDaemonClient::errorInReply(answer))
        die(std::string(what) + " failed: " + error->localizedDescription());
}

// The UUID the daemon logged for the install of `identifier`.
Uuid installedUuid(const std::string& log, const std::string& identifier)
{
    for (int i = 0; i < 400; ++i) {
        std::ifstream in(log);
        std::string text((std::istreambuf_iterator<char>(in)), {});
        std::string line = "plug-in INSTALLED:" + identifier + " " + identifier + "(";
        if (auto at = text.find(line); at != std::string::npos) {
            auto uuid = Uuid::parse(text.substr(text.find(") ", at) + 2, 36));
            if (uuid)
                return *uuid;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    die("the plug-in's install was not logged (see " + log + ")");
}

void annotations(const std::string& tvd, int rounds)
{
    std::string dir = scratchDirectory();
    std::string file = dir + "/Annotations";
    Dictionary data;
    for (int i = 0; i < kAnnotations; ++i)
        data.emplace("com.example.app" + std::to_string(i) + ".share",
                     Value{{"election", i % 2},
                           {"extension", Value{{"lastUsed", Value(Date::fromSeconds(1795341600 + i))},
                                               {"note", "chosen in settings"}}}});
    if (platform::writeVlistFileAtomically(file, Value{{"version", 16}, {"data", Value(std::move(data))}}))
        die("cannot write the annotation file");
    std::string socket = dir + "/vyn/tvd";
    pid_t daemon = startTvd(tvd, dir, socket, file);
    auto config = platform::PlatformConfig::load();
    std::shared_ptr<platform::VynService> vyn = platform::LinuxVynService::create(*config);
    TvDaemonClient client(vyn, socket.c_str());

    // An application with the plug-in, installed while the daemon watches.
    std::filesystem::create_directories(dir + "/apps/Bench.app");
    if (platform::writeVlistFileAtomically(dir + "/apps/Bench.app/Info.vlist",
                                           Value{{"KbBundleIdentifier", "com.example.bench.app"}}))
        die("cannot write the application");
    writePlugIn(dir + "/apps/Bench.app/PlugIns/Bench.vext", "com.example.bench");
    Uuid uuid = installedUuid(dir + "/tvd.log", "com.example.bench");

    // Interleaved, so that the file system's drift hits all three alike.
    std::vector<double> annotateTimes, bulkTimes, rawTimes;
    for (int i = 0; i < rounds; ++i) {
        auto t = Clock::now();
        check(roundTrip([&](auto reply) {
                  client.setPluginAnnotationsAnnotationsReply({uuid}, Value{{"election", i % 2}}, reply);
              }),
              "annotate");
        annotateTimes.push_back(micros(Clock::now() - t));
        t = Clock::now();
        check(roundTrip([&](auto reply) {
                  client.bulkSetPluginAnnotationsReply(Value{{uuid.string(), Value{{"round", i}}}}, reply);
              }),
              "bulk-annotate");
        bulkTimes.push_back(micros(Clock::now() - t));
        std::ifstream in(file, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), {});
        t = Clock::now();
        if (platform::writeFileAtomically(dir + "/Raw", bytes, 0600))
            die("raw save failed");
        rawTimes.push_back(micros(Clock::now() - t));
    }
    double annotate = median(annotateTimes), bulk = median(bulkTimes), raw = median(rawTimes);
    auto bytes = std::filesystem::file_size(file);
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);
    gDaemon = -1;

    std::printf("annotations: %d stored, file %ju bytes, median of %d:\n", kAnnotations,
                static_cast<std::uintmax_t>(bytes), rounds);
    std::printf("  raw atomic save of the same bytes   %9.1f us\n", raw);
    std::printf("  annotate round trip                 %9.1f us  %.2fx raw save\n", annotate, annotate / raw);
    std::printf("  bulk-annotate round trip            %9.1f us  %.2fx raw save\n", bulk, bulk / raw);
    std::filesystem::remove_all(dir);
    std::filesystem::remove_all(gRuntime);
}

// "ready" for 50 plug-ins of one application, each enabled for this process
// with the job manager, beside a "bulk" round trip through the same client
// (a request that touches no plug-in): the ratio is the cost of the checks
// and the 50 registrations.
void readyFifty(const std::string& tvd, int rounds)
{
    constexpr int kPlugIns = 50;
    std::string dir = scratchDirectory();
    std::string socket = dir + "/vyn/tvd";
    pid_t daemon = startTvd(tvd, dir, socket, dir + "/Annotations");
    auto config = platform::PlatformConfig::load();
    std::shared_ptr<platform::VynService> vyn = platform::LinuxVynService::create(*config);
    TvDaemonClient client(vyn, socket.c_str());

    std::filesystem::create_directories(dir + "/apps/Fifty.app");
    if (platform::writeVlistFileAtomically(dir + "/apps/Fifty.app/Info.vlist",
                                           Value{{"KbBundleIdentifier", "com.example.fifty.app"}}))
        die("cannot write the application");
    for (int i = 0; i < kPlugIns; ++i)
        writePlugIn(dir + "/apps/Fifty.app/PlugIns/P" + std::to_string(i) + ".vext",
                    "com.example.fifty" + std::to_string(i), "/bin/true");
    std::vector<Uuid> uuids;
    for (int i = 0; i < kPlugIns; ++i)
        uuids.push_back(installedUuid(dir + "/tvd.log", "com.example.fifty" + std::to_string(i)));

    std::vector<double> readyTimes, bulkTimes;
    for (int i = 0; i < rounds; ++i) {
        auto t = Clock::now();
        check(roundTrip([&](auto reply) { client.readyPlugInsFlagsReply(uuids, 0, reply); }), "ready");
        readyTimes.push_back(micros(Clock::now() - t));
        t = Clock::now();
        check(roundTrip([&](auto reply) { client.bulkPluginsReply(0, reply); }), "bulk");
        bulkTimes.push_back(micros(Clock::now() - t));
    }
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);
    gDaemon = -1;
    double ready = median(readyTimes), bulk = median(bulkTimes);
    std::printf("ready: %d plug-ins, median of %d:\n", kPlugIns, rounds);
    std::printf("  bulk round trip (touches nothing)   %9.1f us\n", bulk);
    std::printf("  ready round trip                    %9.1f us  %.2fx bulk, %.1f us per plug-in\n", ready,
                ready / bulk, (ready - bulk) / kPlugIns);
    std::filesystem::remove_all(dir);
    std::filesystem::remove_all(gRuntime);
}

std::size_t rawProcScan()
{
    std::size_t seen = 0;
    DIR* proc = ::opendir("/proc");
    while (dirent* e = ::readdir(proc)) {
        if (e->d_name[0] < '1' || e->d_name[0] > '9')
            continue;
        char target[PATH_MAX];
        std::string link = std::string("/proc/") + e->d_name + "/exe";
        if (::readlink(link.c_str(), target, sizeof target) > 0)
            ++seen;
    }
    ::closedir(proc);
    return seen;
}

void busyCheck(int processes, int rounds)
{
    std::string dir = scratchDirectory();
    std::string bundle = dir + "/Host.app/PlugIns/Busy.vext";
    writePlugIn(bundle, "com.example.busy", "/bin/sleep");
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        std::string program = i == 0 ? bundle + "/plugin" : "/bin/sleep";
        pid_t pid = ::fork();
        if (pid == 0) {
            ::execl(program.c_str(), program.c_str(), "600", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        if (pid < 0)
            die("fork failed after " + std::to_string(i) + " children");
        children.push_back(pid);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // let every child exec

    platform::LinuxProcessStateService keepd(std::make_shared<platform::LinuxBundleService>());
    std::size_t found = 0, seen = 0;
    double service = medianOf(rounds, [&](int) {
        auto busy = keepd.busyExtensionInstances({"com.example.busy"});
        found = busy.ok() ? busy->size() : 0;
    });
    double raw = medianOf(rounds, [&](int) { seen = rawProcScan(); });
    for (pid_t pid : children)
        ::kill(pid, SIGKILL);
    for (pid_t pid : children)
        ::waitpid(pid, nullptr, 0);

    std::printf("busy check: %d sleeping children, %zu readable executables, median of %d:\n", processes, seen,
                rounds);
    std::printf("  raw /proc/*/exe readlink scan       %9.1f us\n", raw);
    std::printf("  busy check (%zu busy instance)       %9.1f us  %.2fx raw scan\n", found, service, service / raw);
    std::filesystem::remove_all(dir);
}

} // namespace

int main(int argc, char** argv)
{
    std::string tvd;
    int rounds = 200, processes = 1000;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--tvd")
            tvd = argv[i + 1];
        else if (a == "--rounds")
            rounds = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--processes")
            processes = std::max(1, std::atoi(argv[i + 1]));
    }
    if (tvd.empty()) {
        std::fprintf(stderr, "usage: tvd_requests --tvd PATH [--rounds N] [--processes P]\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    annotations(tvd, rounds);
    readyFifty(tvd, rounds);
    busyCheck(processes, rounds);
    return 0;
}
