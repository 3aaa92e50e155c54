// tvd_match: the "match" request through the real daemon, against a raw
// socket round trip that carries the same bytes, reported as ratios.
//
//   tvd_match --tvd PATH [--against PATH] [--pairs N] [--rounds N]
//             [--sizes 1000,10000,100000]
//
// For each registry size a platform is written to a temporary directory:
// plug-in bundles in applications of 500 plug-ins each, spread over 200
// extension points. The queried extension point always holds the same 50
// plug-ins; every other plug-in is in one of the 199 other points (10,000
// plug-ins: 50 in every point). tvd is started on a private socket, left
// until its start-up work has settled (its CPU use), and a raw-protocol
// client sends the same "match" request (rules
// {"KoExtensionPointIdentifier": point}) N times, one outstanding, after one
// warm-up request that fills the daemon's record cache. Two baselines send
// the same request frame over a Unix socket pair to a peer that answers with
// the exact reply frame that tvd sent: the cost of moving those bytes. The
// peer is a forked process, as the daemon is (the ratio is taken against
// it), and, for reference, a thread of the benchmark's own process, which
// saves the switch between address spaces that no daemon can avoid.
// Reported: the median round trip of each, the ratio of tvd to the
// baselines, and each size's tvd median against the 1,000 and 10,000
// plug-in ones.
//
// With --against a second daemon build runs on the same platform, the two
// alternating --pairs times (each run is a fresh daemon start); each figure
// is the median of a build's runs, and the two builds' replies are compared
// byte for byte, but for the UUIDs and dates that registering makes.
//
// A second request adds rules that every candidate evaluates in the daemon
// (a version floor and type-conformance tests against a types directory):
// its figure against the first one is the cost of the rules per match.
#include "Tarvik/TvMessageConversion.h"
#include "base/Value.h"
#include "platform/formats/Vlist.h"
#include "platform/ipc/Message.h"
#include "platform/ipc/VynFrame.h"
#include "LoadSupport.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tv;
using namespace tv::bench;
using platform::Message;
using platform::VynFrame;

namespace {

constexpr int kPoints = 200;
constexpr int kCandidates = 50;
constexpr int kPerApplication = 500;

std::string pointName(int i)
{
    return "com.bench.point" + std::to_string(i);
}

// A scratch file written plainly: no temporary, no sync. The platform is
// thrown away after the run, and 100,000 synced atomic writes (two syncs
// each) took minutes.
void writeVlist(const std::string& path, const Value& value)
{
    std::ofstream(path, std::ios::binary) << platform::serializeVlist(value).value();
}

// Writes `count` plug-ins: the first kCandidates in point 0, the rest over
// points 1..199 in turn.
void writePlatform(const std::string& dir, int count)
{
    for (int i = 0; i < count; ++i) {
        int app = i / kPerApplication;
        std::string appDir = dir + "/apps/A" + std::to_string(app) + ".app";
        if (i % kPerApplication == 0) {
            std::filesystem::create_directories(appDir + "/PlugIns");
            writeVlist(appDir + "/Info.vlist", Value{{"KbBundleIdentifier", "com.bench.app" + std::to_string(app)}});
        }
        int point = i < kCandidates ? 0 : 1 + (i - kCandidates) % (kPoints - 1);
        std::string id = "com.bench.p" + std::to_string(i);
        std::string pdir = appDir + "/PlugIns/P" + std::to_string(i) + ".vext";
        std::filesystem::create_directory(pdir);
        Value info{{"KbBundleIdentifier", id},
                   {"KbBundleVersion", "1"},
                   {"KbBundleName", "Plug-in " + std::to_string(i)},
                   {"KoExtension", Value{{"KoExtensionPointIdentifier", pointName(point)},
                                         {"KoExtensionAttributes",
                                          Value{{"KoExtensionVersion", "1.2"},
                                                {"SupportedTypes", Value(Array{"public.text", "public.jpeg"})}}}}}};
        writeVlist(pdir + "/Info.vlist", info);
    }
}

// Types for the rules request: public.jpeg conforms to public.image.
void writeTypes(const std::string& dir)
{
    std::filesystem::create_directories(dir + "/types");
    Array declarations;
    for (auto [type, parent] : {std::pair{"public.data", "public.item"}, {"public.image", "public.data"},
                                {"public.jpeg", "public.image"}, {"public.text", "public.data"},
                                {"public.movie", "public.data"}})
        declarations.push_back(Value{{"TypeIdentifier", type}, {"ConformsTo", parent}});
    writeVlist(dir + "/types/bench.vlist", Value{{"TypeDeclarations", Value(std::move(declarations))}});
}

struct Figures {
    int plugIns = 0;
    std::size_t forms = 0;
    std::size_t ruleForms = 0;
    std::size_t replyBytes = 0;
    double tvd = 0;
    double rules = 0;
    double baseline = 0; // peer process
    double threadBaseline = 0;
    Bytes reply; // the last plain match reply frame
};

Bytes requestFrame(const Value& rules)
{
    Message request;
    request.set("request", Value("match"));
    request.set("version", Value(std::uint64_t{3}));
    request.set("flags", Value(std::uint64_t{0}));
    request.set("rules", rules);
    Bytes frame = VynFrame::encode(request, true, 64).value();
    VynFrame::setMessageId(frame, 1);
    return frame;
}

// The median round trip of `rounds` requests after one warm-up; `reply`
// receives the last reply.
double roundTrips(int fd, const Bytes& frame, int rounds, Bytes& reply)
{
    writeAll(fd, frame.data(), frame.size());
    readFrame(fd, reply); // warm-up: fills the record cache
    return median(frameRoundTrips(fd, frame, rounds, reply));
}

// The number of forms in a match reply frame.
std::size_t formsIn(const Bytes& frame)
{
    auto header = VynFrame::parseHeader(std::span<const std::uint8_t, VynFrame::kHeaderSize>(
        frame.data(), VynFrame::kHeaderSize));
    if (!header)
        return 0;
    auto message = VynFrame::decodeBody(*header, std::span<const std::uint8_t>(frame).subspan(VynFrame::kHeaderSize),
                                        64);
    if (!message)
        return 0;
    if (!message->get("errorcode").isNull()) {
        std::fprintf(stderr, "tvd_match: error reply %s\n", message->description().c_str());
        return 0;
    }
    Value forms = messageDecode(message->get("matches"));
    return forms.asArray() ? forms.asArray()->size() : 0;
}

// The CPU time `pid` has used, in clock ticks (utime + stime).
long cpuTicks(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14)
            utime = std::atol(field.c_str());
        if (i == 15)
            stime = std::atol(field.c_str());
    }
    return utime + stime;
}

// Waits until the daemon has used under 5% of a processor over half a
// second: it answers on its socket before its start-up work (the registry's
// index and watches) is done, and with 100,000 plug-ins that work would
// otherwise run beside the measured requests.
void waitUntilSettled(pid_t pid)
{
    const long perHalfSecond = ::sysconf(_SC_CLK_TCK) / 2;
    for (long before = cpuTicks(pid);;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        long now = cpuTicks(pid);
        if ((now - before) * 20 < perHalfSecond)
            return;
        before = now;
    }
}

// `bytes` with what a registration makes (every UUID in text form, 8-4-4-4-12
// hex digits, and the 8 bytes of each "lastmodified" date) zeroed.
Bytes withoutRegistration(Bytes bytes)
{
    static constexpr std::size_t kLength = 36;
    auto hex = [](std::uint8_t c) { return std::isxdigit(c) != 0; };
    for (std::size_t i = 0; i + kLength <= bytes.size(); ++i) {
        bool uuid = true;
        for (std::size_t k = 0; k < kLength && uuid; ++k)
            uuid = (k == 8 || k == 13 || k == 18 || k == 23) ? bytes[i + k] == '-' : hex(bytes[i + k]);
        if (!uuid)
            continue;
        for (std::size_t k = 0; k < kLength; ++k)
            if (bytes[i + k] != '-')
                bytes[i + k] = '0';
        i += kLength - 1;
    }
    static constexpr std::string_view kDate = "lastmodified";
    for (auto it = bytes.begin();
         (it = std::search(it, bytes.end(), kDate.begin(), kDate.end())) != bytes.end();) {
        it += kDate.size();
        if (bytes.end() - it >= 9)
            std::fill(it + 1, it + 9, 0); // past the type byte
    }
    return bytes;
}

// The median round trip of `frame` out and `reply` back over a Unix socket
// pair, the peer a forked process or a thread of this one.
double rawRoundTrip(const Bytes& frame, const Bytes& reply, int rounds, bool process)
{
    int sv[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv);
    auto echo = [&] {
        Bytes in;
        while (readFrame(sv[1], in))
            if (!writeAll(sv[1], reply.data(), reply.size()))
                break;
    };
    pid_t child = -1;
    std::thread thread;
    if (process) {
        // This process runs no other thread here: the child may allocate.
        child = ::fork();
        if (child == 0) {
            ::close(sv[0]);
            echo();
            ::_exit(0);
        }
    } else {
        thread = std::thread(echo);
    }
    Bytes back;
    std::vector<double> times = frameRoundTrips(sv[0], frame, rounds, back);
    ::shutdown(sv[0], SHUT_RDWR);
    if (process)
        ::waitpid(child, nullptr, 0);
    else
        thread.join();
    ::close(sv[0]);
    ::close(sv[1]);
    return median(times);
}

// One daemon run over the platform in `dir`: both requests, then the raw
// baselines carrying that daemon's reply.
Figures measure(const std::string& tvd, const std::string& dir, int plugIns, int rounds)
{
    Figures f;
    f.plugIns = plugIns;
    std::string socket = dir + "/vyn/tvd";
    ::unlink(socket.c_str());
    auto started = Clock::now();
    // Scanning 100,000 bundles takes a while on a busy machine.
    pid_t daemon = startTvd(tvd, dir, socket, std::chrono::seconds(600), "types_dir = " + dir + "/types\n");
    auto up = Clock::now();
    waitUntilSettled(daemon);
    std::fprintf(stderr, "tvd_match: %s up in %.1f s, settled %.1f s later\n", tvd.c_str(),
                 micros(up - started) / 1e6, micros(Clock::now() - up) / 1e6);

    Bytes frame = requestFrame(Value{{"KoExtensionPointIdentifier", pointName(0)}});
    Bytes ruleFrame = requestFrame(Value{{"KoExtensionPointIdentifier", pointName(0)},
                                         {"KoExtensionVersion", ">=1.1"},
                                         {"SupportedTypes", Value(Array{"?TY-CONFORMS:public.movie",
                                                                        "?TY-CONFORMS:public.image"})}});
    int fd = connectTo(socket);
    Bytes reply;
    f.rules = roundTrips(fd, ruleFrame, rounds, reply);
    f.ruleForms = formsIn(reply);
    f.tvd = roundTrips(fd, frame, rounds, reply);
    f.forms = formsIn(reply);
    f.replyBytes = reply.size();
    f.reply = reply;
    ::close(fd);
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);

    f.baseline = rawRoundTrip(frame, reply, rounds, true);
    f.threadBaseline = rawRoundTrip(frame, reply, rounds, false);
    return f;
}

// Writes the platform for `plugIns` once and measures each daemon on it,
// alternating, `pairs` times. Returns one Figures per daemon: the medians
// of its runs' figures. The platform's directory is added to `scratch`.
std::vector<Figures> measureSize(const std::vector<std::string>& daemons, int plugIns, int rounds, int pairs,
                                 std::vector<std::string>& scratch)
{
    char templ[] = "/tmp/tvd-match-bench-XXXXXX";
    std::string dir = ::mkdtemp(templ);
    scratch.push_back(dir);
    auto started = Clock::now();
    writePlatform(dir, plugIns);
    writeTypes(dir);
    std::fprintf(stderr, "tvd_match: %d plug-ins written in %.1f s\n", plugIns, micros(Clock::now() - started) / 1e6);
    std::vector<std::vector<Figures>> runs(daemons.size());
    for (int pair = 0; pair < pairs; ++pair)
        for (std::size_t d = 0; d < daemons.size(); ++d)
            runs[d].push_back(measure(daemons[d], dir, plugIns, rounds));

    std::vector<Figures> result;
    for (auto& list : runs) {
        Figures f = list.back();
        auto med = [&](double Figures::*field) {
            std::vector<double> v;
            for (const auto& r : list)
                v.push_back(r.*field);
            return median(v);
        };
        f.tvd = med(&Figures::tvd);
        f.rules = med(&Figures::rules);
        f.baseline = med(&Figures::baseline);
        f.threadBaseline = med(&Figures::threadBaseline);
        result.push_back(std::move(f));
    }
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    std::string tvd, against;
    int rounds = 500, pairs = 1;
    std::vector<int> sizes{1000, 10000, 100000};
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--tvd") {
            tvd = argv[i + 1];
        } else if (a == "--against") {
            against = argv[i + 1];
        } else if (a == "--pairs") {
            pairs = std::max(1, std::atoi(argv[i + 1]));
        } else if (a == "--rounds") {
            rounds = std::max(1, std::atoi(argv[i + 1]));
        } else if (a == "--sizes") {
            sizes.clear();
            std::stringstream list(argv[i + 1]);
            for (std::string n; std::getline(list, n, ',');)
                if (std::atoi(n.c_str()) >= kCandidates)
                    sizes.push_back(std::atoi(n.c_str()));
        }
    }
    if (tvd.empty() || sizes.empty()) {
        std::fprintf(stderr, "usage: tvd_match --tvd PATH [--against PATH] [--pairs N] [--rounds N] "
                             "[--sizes 1000,10000,100000]\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<std::string> daemons{tvd};
    if (!against.empty())
        daemons.push_back(against);

    // all[d][s]: daemon d at size s.
    std::vector<std::vector<Figures>> all(daemons.size());
    std::vector<std::string> scratch;
    for (int size : sizes) {
        auto figures = measureSize(daemons, size, rounds, pairs, scratch);
        for (std::size_t d = 0; d < daemons.size(); ++d)
            all[d].push_back(std::move(figures[d]));
    }
    std::printf("match over %d extension points, %d candidates, median of %d round trips (median of %d runs):\n",
                kPoints, kCandidates, rounds, pairs);
    for (std::size_t d = 0; d < daemons.size(); ++d) {
        double reference = 0, small = 0;
        for (const auto& f : all[d]) {
            if (f.plugIns == 10000)
                reference = f.tvd;
            if (f.plugIns == 1000)
                small = f.tvd;
        }
        std::printf(" %s\n", daemons[d].c_str());
        for (const auto& f : all[d]) {
            std::printf("  %6d plug-ins: %zu forms, reply %zu bytes; tvd %8.1f us, raw socket %6.1f us to a process "
                        "(%.1fx raw), %6.1f us to a thread (%.1fx)",
                        f.plugIns, f.forms, f.replyBytes, f.tvd, f.baseline, f.tvd / f.baseline, f.threadBaseline,
                        f.tvd / f.threadBaseline);
            if (small > 0)
                std::printf(", %.2fx the 1,000", f.tvd / small);
            if (reference > 0)
                std::printf(", %.2fx the 10,000 plug-in match", f.tvd / reference);
            std::printf("\n  %6s  with rules (version, type conformance): %zu forms, tvd %8.1f us, %.2fx without\n",
                        "", f.ruleForms, f.rules, f.rules / f.tvd);
        }
    }
    // Both daemons answered on the same platform: their replies' bodies
    // (past the header, which holds the message id) must be the same bytes,
    // but for what a registration makes: builds whose registry stores differ
    // in schema each register the bundles afresh (new UUIDs and dates).
    if (daemons.size() == 2) {
        for (std::size_t s = 0; s < sizes.size(); ++s) {
            const Bytes x = withoutRegistration(all[0][s].reply);
            const Bytes y = withoutRegistration(all[1][s].reply);
            bool same = x.size() == y.size() && x.size() >= VynFrame::kHeaderSize &&
                        std::equal(x.begin() + VynFrame::kHeaderSize, x.end(), y.begin() + VynFrame::kHeaderSize);
            std::printf("  %6d plug-ins: tvd %.2fx against; reply bodies %s\n", sizes[s],
                        all[0][s].tvd / all[1][s].tvd, same ? "identical" : "DIFFER");
        }
    }
    std::fflush(stdout);
    // Removing 100,000 bundles takes minutes on a busy disk: after the report.
    for (const auto& dir : scratch)
        std::filesystem::remove_all(dir);
    return 0;
}
