// tvd_soak: the daemon under load and over a long run. Each check prints one
// line with its figures and PASS or FAIL; the exit status is 1 when any
// check failed.
//
//   tvd_soak --tvd PATH [--requests N] [--check NAME]... [--leak-check]
//
// Checks (all of them unless some are named):
//   connections  1,024 clients of 4 uids connected at once, each served; one
//                more of one uid is refused while the others are served
//                (per-uid cap); then 2,048 of 8 uids, and one more of a ninth
//                uid is refused (total cap). The daemon runs with its default
//                caps (256 per uid, 2,048 in all) and a descriptor limit of
//                8,192, so the caps stand; the clients are child processes
//                that switch to unprivileged uids (so this check needs root;
//                without it the check is reported as skipped).
//   output       a client pipelines requests without reading replies until
//                the daemon cuts it at max_unsent_output; meanwhile 16 other
//                clients are served, their p99 compared with the same
//                clients' p99 on the unloaded daemon, measured first.
//   descriptors  10,000 requests sent with descriptors attached (SCM_RIGHTS,
//                1 to 4 each, 64 on every 500th: more than the daemon takes
//                with one read); the daemon's open descriptors are counted
//                before and after.
//   soak         N requests (default 1,000,000): "match", "annotate", "lock"
//                and its release, "ready", from 64 raw-protocol clients that
//                reconnect every 100 requests. Afterwards the daemon's
//                descriptors are back at their count before the run and its
//                resident memory is within 2 MiB of where it settled: its
//                VmRSS once 15% of the requests were answered (after the
//                caches, the allocator's arenas and the annotation file have
//                reached their working size).
// --leak-check stops the daemon with SIGTERM after the checks and fails when
// its log holds a sanitizer report or it did not exit with status 0: meant
// for a tvd built with -DTVD_SANITIZE=ON, which checks for leaks as it exits.
// The memory figure is then not checked: AddressSanitizer's quarantine keeps
// freed memory resident.
//
// Every daemon runs on a private socket over a scratch platform tree in
// $TVD_BENCH_DIR, else on tmpfs (/dev/shm) where there is one, else in the
// system's temporary directory; it is removed at the end unless the run
// failed.
#include "LoadSupport.h"
#include "Tarvik/TvMessageConversion.h"
#include "platform/formats/Vlist.h"
#include "platform/ipc/Message.h"
#include "platform/ipc/VynFrame.h"

#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <map>
#include <optional>
#include <poll.h>
#include <set>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace tv;
using namespace tv::bench;
using platform::Message;
using platform::VynFrame;

namespace {

bool gAnyFailed = false;
std::string gTvd;

void report(bool pass, const char* format, ...) __attribute__((format(printf, 2, 3)));
void report(bool pass, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::printf("  %s\n", pass ? "PASS" : "FAIL");
    std::fflush(stdout);
    gAnyFailed |= !pass;
}

[[noreturn]] void die(const std::string& what)
{
    std::fprintf(stderr, "tvd_soak: %s\n", what.c_str());
    std::exit(1);
}

// ---------------------------------------------------------------------------
// Frames.

Message request(const std::string& type)
{
    Message m;
    m.set("request", Value(type));
    m.set("version", Value(std::uint64_t{3}));
    return m;
}

Message bulkRequest()
{
    Message m = request("bulk");
    m.set("flags", Value(std::uint64_t{0}));
    return m;
}

Bytes frameOf(const Message& m, std::uint64_t id = 1)
{
    Bytes frame = VynFrame::encode(m, true, 64).value();
    VynFrame::setMessageId(frame, id);
    return frame;
}

std::optional<Message> decode(const Bytes& frame)
{
    auto header = VynFrame::parseHeader(
        std::span<const std::uint8_t, VynFrame::kHeaderSize>(frame.data(), VynFrame::kHeaderSize));
    if (!header)
        return std::nullopt;
    auto m = VynFrame::decodeBody(*header, std::span(frame).subspan(VynFrame::kHeaderSize), 64);
    if (!m)
        return std::nullopt;
    m->setReplyTo(header->replyTo);
    return *m;
}

// The reply to one request on a blocking socket; none when the connection
// ended (or its read timed out) first.
std::optional<Message> ask(int fd, const Message& m, std::uint64_t id = 1)
{
    Bytes frame = frameOf(m, id);
    if (!writeAll(fd, frame.data(), frame.size()) || !readFrame(fd, frame))
        return std::nullopt;
    return decode(frame);
}

bool succeeded(const std::optional<Message>& reply)
{
    return reply && reply->get("errorcode").isNull() && reply->get("error").isNull();
}

void setReadTimeout(int fd, int seconds)
{
    timeval tv{seconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

// ---------------------------------------------------------------------------
// The daemon and its scratch platform.

long procStatusKiB(pid_t pid, const char* key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(key, 0) == 0)
            return std::atol(line.c_str() + std::strlen(key));
    return -1;
}

int openDescriptors(pid_t pid)
{
    DIR* d = ::opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!d)
        return -1;
    int n = 0;
    while (dirent* e = ::readdir(d))
        n += e->d_name[0] != '.';
    ::closedir(d);
    return n;
}

// The daemon's open descriptors once the count has held still for half a
// second (closes from clients are handled on the daemon's own time).
int settledDescriptors(pid_t pid)
{
    int last = openDescriptors(pid), same = 0;
    for (auto deadline = Clock::now() + std::chrono::seconds(10); same < 5 && Clock::now() < deadline;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        int now = openDescriptors(pid);
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

struct Daemon {
    std::string dir, socket, log;
    pid_t pid = -1;
    std::vector<Uuid> readyUuids;       // plug-ins for "match", "annotate" and "ready"
    std::vector<std::string> lockPaths; // plug-in bundles that are only held

    ~Daemon() { stop(SIGKILL); }
    // Stops the daemon with `sig`; its exit status, or -signal.
    int stop(int sig = SIGTERM)
    {
        if (pid <= 0)
            return -1;
        ::kill(pid, sig);
        int status = 0;
        for (auto deadline = Clock::now() + std::chrono::seconds(60); ::waitpid(pid, &status, WNOHANG) != pid;) {
            if (Clock::now() > deadline) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    std::string logText() const
    {
        std::ifstream in(log);
        return std::string((std::istreambuf_iterator<char>(in)), {});
    }
    void removeTree() const
    {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

constexpr int kPlugIns = 8; // half served, half held
const char* const kPoint = "com.example.soak";

void writeInfo(const std::string& dir, const Value& info)
{
    std::filesystem::create_directories(dir);
    if (platform::writeVlistFileAtomically(dir + "/Info.vlist", info))
        die("cannot write " + dir + "/Info.vlist");
}

// Starts tvd over a fresh scratch tree with one application of kPlugIns
// plug-ins, this program entitled as a manager, the given extra
// configuration lines and a descriptor limit of 8,192; learns the plug-ins'
// UUIDs through "match".
std::unique_ptr<Daemon> startDaemon(const std::vector<std::string>& extraConfig = {}, bool leakCheck = false)
{
    auto d = std::make_unique<Daemon>();
    // On tmpfs unless told otherwise: the runtime directory is tmpfs in
    // production, and the annotation file's fsyncs would otherwise measure
    // the disk, not the daemon.
    const char* base = std::getenv("TVD_BENCH_DIR");
    std::string root = base && *base                              ? std::string(base)
                       : std::filesystem::is_directory("/dev/shm") ? std::string("/dev/shm")
                                                                   : std::filesystem::temp_directory_path().string();
    std::string tmpl = root + "/tvd-soak-XXXXXX";
    if (!::mkdtemp(tmpl.data()))
        die("cannot make a scratch directory");
    d->dir = tmpl;
    ::chmod(d->dir.c_str(), 0755); // clients of other uids reach the socket through it
    for (const char* sub : {"vyn", "run", "apps", "entitlements.d"})
        std::filesystem::create_directories(d->dir + "/" + sub);
    d->socket = d->dir + "/vyn/tvd";
    d->log = d->dir + "/tvd.log";

    Value dropIn{{"Executable", std::filesystem::canonical("/proc/self/exe").string()},
                 {"Entitlements", Value{{"com.veltra.private.tarvik.manager", true}}}};
    if (platform::writeVlistFileAtomically(d->dir + "/entitlements.d/soak.vlist", dropIn))
        die("cannot write the entitlement drop-in");
    std::string app = d->dir + "/apps/Soak.app";
    writeInfo(app, Value{{"KbBundleIdentifier", "com.example.soak.app"}});
    for (int i = 0; i < kPlugIns; ++i) {
        std::string dir = app + "/PlugIns/P" + std::to_string(i) + ".vext";
        std::filesystem::create_directories(dir);
        std::filesystem::copy_file("/bin/true", dir + "/plugin");
        writeInfo(dir, Value{{"KbBundleIdentifier", "com.example.soak" + std::to_string(i)},
                             {"KbBundleVersion", "1"},
                             {"KbBundleExecutable", "plugin"},
                             {"KoExtension", Value{{"KoExtensionPointIdentifier", kPoint}}}});
    }

    std::string conf = d->dir + "/tvd.conf";
    {
        std::ofstream out(conf);
        const std::string& r = d->dir;
        out << "socket_dir = " << r << "/vyn\nruntime_dir = " << r << "/run\napplication_roots = " << r
            << "/apps\nsystem_volume_root = " << r << "/System\nsystem_plugins_dir = " << r
            << "/System/Library/PlugIns\nregistry_database = " << r << "/registry.sqlite\ncontainers_root = " << r
            << "/containers\npreferences_dir = " << r << "/preferences\nglobal_annotations = " << r
            << "/Annotations\nprivacy_grants = " << r << "/grants.vlist\nentitlements_dir = " << r
            << "/entitlements.d\n";
        for (const auto& line : extraConfig)
            out << line << "\n";
    }
    pid_t child = ::fork();
    if (child == 0) {
        if (!std::freopen(d->log.c_str(), "w", stderr))
            ::_exit(126);
        rlimit files{8192, 8192};
        ::setrlimit(RLIMIT_NOFILE, &files);
        ::setenv("TVD_CONFIG", conf.c_str(), 1);
        if (leakCheck)
            ::setenv("ASAN_OPTIONS", "detect_leaks=1:abort_on_error=0", 1);
        ::execl(gTvd.c_str(), gTvd.c_str(), "-S", d->socket.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    d->pid = child;

    // Up, and every plug-in installed.
    Message match = request("match");
    match.set("rules", Value{{"KoExtensionPointIdentifier", kPoint}});
    match.set("flags", Value(std::uint64_t{0}));
    std::map<std::string, Uuid> found;
    for (auto deadline = Clock::now() + std::chrono::seconds(60);
         found.size() < kPlugIns && Clock::now() < deadline;
         std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
        int fd = connectTo(d->socket);
        if (fd < 0)
            continue;
        setReadTimeout(fd, 30);
        auto reply = ask(fd, match);
        ::close(fd);
        if (!reply)
            continue;
        Value forms = messageDecode(reply->get("matches"));
        for (const Value& form : forms.asArray() ? *forms.asArray() : Array{}) {
            const std::string* id = form["identifier"].asString();
            std::optional<Uuid> uuid;
            if (const Uuid* u = form["uuid"].asUuid())
                uuid = *u;
            else if (const std::string* s = form["uuid"].asString())
                uuid = Uuid::parse(*s);
            if (id && uuid)
                found[*id] = *uuid;
        }
    }
    if (found.size() < kPlugIns)
        die("tvd did not come up with its " + std::to_string(kPlugIns) + " plug-ins (see " + d->log + ")");
    for (int i = 0; i < kPlugIns; ++i) {
        std::string id = "com.example.soak" + std::to_string(i);
        if (i < kPlugIns / 2)
            d->readyUuids.push_back(found[id]);
        else
            d->lockPaths.push_back(std::filesystem::canonical(app + "/PlugIns/P" + std::to_string(i) + ".vext"));
    }
    return d;
}

// ---------------------------------------------------------------------------
// connections: clients of several uids, the per-uid and the total cap.

// A child process holding connections as one uid, driven by one-byte
// commands on a pipe, answering each with one number.
class UidWorker {
public:
    UidWorker(uid_t uid, const std::string& socket) : uid_(uid)
    {
        int cmd[2], res[2];
        if (::pipe2(cmd, O_CLOEXEC) || ::pipe2(res, O_CLOEXEC))
            die("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(cmd[1]);
            ::close(res[0]);
            serve(cmd[0], res[1], socket);
        }
        ::close(cmd[0]);
        ::close(res[1]);
        cmd_ = cmd[1];
        res_ = res[0];
    }
    ~UidWorker()
    {
        command('q');
        ::close(cmd_);
        ::close(res_);
        ::waitpid(pid_, nullptr, 0);
    }
    uid_t uid() const { return uid_; }
    // 'o' n: open n connections; 'r': a request on every connection, the
    // number answered; 'x': one more connection and a request on it, 1 when
    // answered (the connection is kept), 0 when closed unanswered.
    std::int32_t command(char c, std::int32_t n = 0)
    {
        char buf[5] = {c};
        std::memcpy(buf + 1, &n, 4);
        std::int32_t out = -1;
        if (::write(cmd_, buf, 5) != 5 || !readExact(res_, reinterpret_cast<std::uint8_t*>(&out), 4))
            return -1;
        return out;
    }

private:
    [[noreturn]] void serve(int cmd, int res, const std::string& socket)
    {
        std::int32_t fail = -1;
        if (::setgroups(0, nullptr) != 0 || ::setgid(uid_) != 0 || ::setuid(uid_) != 0) {
            (void)!::write(res, &fail, 4);
            ::_exit(1);
        }
        std::vector<int> fds;
        Bytes bulk = frameOf(bulkRequest());
        std::uint64_t id = 0;
        char buf[5];
        while (readExact(cmd, reinterpret_cast<std::uint8_t*>(buf), 5)) {
            std::int32_t n;
            std::memcpy(&n, buf + 1, 4);
            std::int32_t out = 0;
            if (buf[0] == 'q')
                break;
            if (buf[0] == 'o') {
                for (int i = 0; i < n; ++i) {
                    int fd = connectTo(socket);
                    if (fd < 0)
                        break;
                    setReadTimeout(fd, 30);
                    fds.push_back(fd);
                    ++out;
                }
            } else if (buf[0] == 'r') {
                // Every request out before any reply is read.
                std::uint64_t first = id + 1;
                for (int fd : fds) {
                    VynFrame::setMessageId(bulk, ++id);
                    writeAll(fd, bulk.data(), bulk.size());
                }
                Bytes frame;
                for (std::size_t i = 0; i < fds.size(); ++i)
                    if (readFrame(fds[i], frame)) {
                        auto reply = decode(frame);
                        out += succeeded(reply) && reply->replyTo() == first + i;
                    }
            } else if (buf[0] == 'x') {
                int fd = connectTo(socket);
                if (fd >= 0) {
                    setReadTimeout(fd, 10);
                    VynFrame::setMessageId(bulk, ++id);
                    Bytes frame;
                    if (writeAll(fd, bulk.data(), bulk.size()) && readFrame(fd, frame) && succeeded(decode(frame))) {
                        out = 1;
                        fds.push_back(fd);
                    } else {
                        ::close(fd);
                    }
                }
            }
            (void)!::write(res, &out, 4);
        }
        for (int fd : fds)
            ::close(fd);
        ::_exit(0);
    }

    uid_t uid_;
    pid_t pid_ = -1;
    int cmd_ = -1, res_ = -1;
};

// How often the daemon's log says it refused a connection for `limit`.
int refusals(const Daemon& d, const std::string& limit)
{
    std::string text = d.logText();
    int n = 0;
    for (std::size_t at = 0; (at = text.find("refused connection from", at)) != std::string::npos; ++at) {
        std::size_t end = text.find('\n', at);
        n += text.substr(at, end - at).find(limit) != std::string::npos;
    }
    return n;
}

void checkConnections()
{
    if (::geteuid() != 0) {
        std::printf("connections: skipped (clients of several uids need root)\n");
        return;
    }
    auto d = startDaemon();
    constexpr uid_t kFirstUid = 61001;
    constexpr int kPerUid = 256, kAll = 2048;
    std::vector<std::unique_ptr<UidWorker>> workers;
    for (int i = 0; i < 9; ++i)
        workers.push_back(std::make_unique<UidWorker>(kFirstUid + static_cast<uid_t>(i), d->socket));

    // 1,024 clients of 4 uids, all connected before any is served.
    auto start = Clock::now();
    int open = 0, served = 0;
    for (int i = 0; i < 4; ++i)
        open += workers[static_cast<std::size_t>(i)]->command('o', kPerUid);
    for (int i = 0; i < 4; ++i)
        served += workers[static_cast<std::size_t>(i)]->command('r');
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    int daemonFds = openDescriptors(d->pid);
    report(open == 4 * kPerUid && served == open,
           "connections: %d clients of 4 uids connected at once, %d served (%.2f s), daemon holds %d descriptors",
           open, served, seconds, daemonFds);

    // Uid 1 at its cap of 256: one more is closed, the others go on.
    int extra = workers[0]->command('x');
    int others = 0;
    for (int i = 0; i < 4; ++i)
        others += workers[static_cast<std::size_t>(i)]->command('r');
    int perUidLogged = refusals(*d, "(limit 256)");
    report(extra == 0 && others == 4 * kPerUid && perUidLogged == 1,
           "per-uid cap: uid %u's connection %d %s (refusals logged: %d); then all %d connections of 4 uids served",
           workers[0]->uid(), kPerUid + 1, extra == 0 ? "closed unanswered" : "was served", perUidLogged, others);

    // 2,048 in all (the default cap) from 8 uids; a ninth uid is refused.
    open = 0;
    for (int i = 4; i < 8; ++i)
        open += workers[static_cast<std::size_t>(i)]->command('o', kPerUid);
    int ninth = workers[8]->command('x');
    served = 0;
    for (int i = 0; i < 8; ++i)
        served += workers[static_cast<std::size_t>(i)]->command('r');
    int totalLogged = refusals(*d, "(limit 2048)");
    report(open == 4 * kPerUid && ninth == 0 && served == kAll && totalLogged == 1,
           "total cap: %d connections of 8 uids (default max_connections %d); uid %u's first connection %s "
           "(refusals logged: %d); then all %d served",
           served, kAll, workers[8]->uid(), ninth == 0 ? "closed unanswered" : "was served", totalLogged, served);
    workers.clear();
    d->stop();
    if (!gAnyFailed)
        d->removeTree();
}

// ---------------------------------------------------------------------------
// output: a client that never reads is cut; the others are served.

struct Latencies {
    std::vector<double> us;
    int clients = 0;
};

// `clients` threads, each sending "bulk" requests one at a time with a pause
// of 1 ms between, until `requests` each or until `stop` is set.
Latencies serveClients(const std::string& socket, int clients, int requests, const std::atomic<bool>* stop)
{
    Latencies out;
    std::mutex mutex;
    std::vector<std::thread> threads;
    const Bytes frame0 = frameOf(bulkRequest());
    for (int c = 0; c < clients; ++c)
        threads.emplace_back([&] {
            int fd = connectTo(socket);
            if (fd < 0)
                return;
            setReadTimeout(fd, 30);
            std::vector<double> mine;
            Bytes frame = frame0, reply;
            for (int r = 0; r < requests && !(stop && stop->load()); ++r) {
                VynFrame::setMessageId(frame, static_cast<std::uint64_t>(r) + 1);
                auto t = Clock::now();
                if (!writeAll(fd, frame.data(), frame.size()) || !readFrame(fd, reply))
                    break;
                mine.push_back(micros(Clock::now() - t));
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            ::close(fd);
            std::lock_guard lock(mutex);
            out.us.insert(out.us.end(), mine.begin(), mine.end());
            ++out.clients;
        });
    for (auto& t : threads)
        t.join();
    return out;
}

// A client that pipelines "bulk" requests as fast as it can and never
// reads, until the daemon cuts it (or a write stalls for 30 s); sets `cut`
// when it is done.
struct Flood {
    std::atomic<bool> cut{false};
    std::atomic<std::uint64_t> pipelined{0};
    double seconds = 0;
    std::thread thread;

    explicit Flood(const std::string& socket)
    {
        thread = std::thread([this, socket] {
            auto start = Clock::now();
            int fd = connectTo(socket);
            timeval stall{30, 0}; // a daemon that stops reading must not hang the check
            ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &stall, sizeof stall);
            Bytes one = frameOf(bulkRequest()), batch;
            std::uint64_t id = 0;
            for (auto deadline = Clock::now() + std::chrono::seconds(120); fd >= 0 && Clock::now() < deadline;) {
                batch.clear();
                for (int i = 0; i < 256; ++i) {
                    VynFrame::setMessageId(one, ++id);
                    batch.insert(batch.end(), one.begin(), one.end());
                }
                if (!writeAll(fd, batch.data(), batch.size()))
                    break;
                pipelined += 256;
            }
            seconds = std::chrono::duration<double>(Clock::now() - start).count();
            cut = true;
            if (fd >= 0)
                ::close(fd);
        });
    }
};

void checkOutput()
{
    auto d = startDaemon();
    // Three rounds, each the clients alone and then beside a client that is
    // cut, so that the machine's own drift hits both alike; the samples of
    // each kind are pooled.
    constexpr int kClients = 16, kUnloadedRequests = 1000, kRounds = 3;
    Latencies unloaded, loaded;
    std::vector<double> cutAfter;
    std::vector<std::uint64_t> pipelined;
    for (int round = 0; round < kRounds; ++round) {
        Latencies alone = serveClients(d->socket, kClients, kUnloadedRequests, nullptr);
        unloaded.us.insert(unloaded.us.end(), alone.us.begin(), alone.us.end());
        Flood flood(d->socket);
        while (flood.pipelined.load() < 2048 && !flood.cut.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        Latencies beside = serveClients(d->socket, kClients, 1 << 30, &flood.cut);
        flood.thread.join();
        loaded.us.insert(loaded.us.end(), beside.us.begin(), beside.us.end());
        cutAfter.push_back(flood.seconds);
        pipelined.push_back(flood.pipelined.load());
    }
    double p99Unloaded = percentile(unloaded.us, 0.99), p99Loaded = percentile(loaded.us, 0.99);
    double ratio = p99Unloaded > 0 ? p99Loaded / p99Unloaded : 0;
    d->stop(); // its log is complete once it has exited
    std::string text = d->logText();
    int cuts = 0;
    for (std::size_t at = 0;
         (at = text.find("bytes of unsent output exceed the limit of 8388608 bytes", at)) != std::string::npos; ++at)
        ++cuts;
    report(cuts == kRounds && loaded.us.size() >= 1000 && ratio > 0 && ratio <= 2.0,
           "output limit: %d rounds; a client pipelining without reading was cut after %.1f, %.1f, %.1f s and %" PRIu64
           ", %" PRIu64 ", %" PRIu64 " requests (cuts at 8 MiB logged: %d); %d clients beside it: %zu requests, "
           "p50 %.0f us, p99 %.0f us; alone: %zu requests, p50 %.0f us, p99 %.0f us; p99 ratio %.2fx (limit 2x)",
           kRounds, cutAfter[0], cutAfter[1], cutAfter[2], pipelined[0], pipelined[1], pipelined[2], cuts, kClients,
           loaded.us.size(), percentile(loaded.us, 0.5), p99Loaded, unloaded.us.size(), percentile(unloaded.us, 0.5),
           p99Unloaded, ratio);
    if (!gAnyFailed)
        d->removeTree();
}

// ---------------------------------------------------------------------------
// descriptors: messages carrying descriptors leave none behind.

void checkDescriptors()
{
    auto d = startDaemon();
    constexpr int kMessages = 10000;
    int fd = connectTo(d->socket);
    setReadTimeout(fd, 30);
    const Message bulk = bulkRequest();
    bool ok = succeeded(ask(fd, bulk)); // identified, served
    int before = settledDescriptors(d->pid);

    int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    Bytes frame = frameOf(bulk), reply;
    std::uint64_t passed = 0;
    int answered = 0;
    for (int i = 0; i < kMessages; ++i) {
        int count = i % 500 == 499 ? 64 : 1 + i % 4;
        std::vector<int> fds(static_cast<std::size_t>(count), devnull);
        std::vector<char> control(CMSG_SPACE(sizeof(int) * fds.size()));
        VynFrame::setMessageId(frame, static_cast<std::uint64_t>(i) + 2);
        iovec iov{frame.data(), frame.size()};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control.data();
        msg.msg_controllen = control.size();
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        std::memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
        if (::sendmsg(fd, &msg, MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size()) || !readFrame(fd, reply))
            break;
        passed += static_cast<std::uint64_t>(count);
        answered += succeeded(decode(reply));
    }
    ok = ok && succeeded(ask(fd, bulk, kMessages + 2));
    int after = settledDescriptors(d->pid);
    ::close(devnull);
    ::close(fd);
    d->stop();
    report(ok && answered == kMessages && before > 0 && after == before,
           "passed descriptors: %d messages answered of %d, %" PRIu64
           " descriptors passed; daemon's open descriptors %d before, %d after",
           answered, kMessages, passed, before, after);
    if (!gAnyFailed)
        d->removeTree();
}

// ---------------------------------------------------------------------------
// soak: a long mix of requests from clients that come and go.

struct SoakClient {
    int fd = -1;
    int step = 0; // requests answered on this connection
    std::uint64_t id = 0;
    Uuid token; // of the hold placed by the last "lock"
    Bytes in;
};

class Soak {
public:
    Soak(Daemon& d, std::uint64_t requests) : d_(d), total_(requests)
    {
        Message match = request("match");
        match.set("rules", Value{{"KoExtensionPointIdentifier", kPoint}});
        match.set("flags", Value(std::uint64_t{0}));
        match_ = frameOf(match);
        for (const Uuid& u : d.readyUuids) {
            Message ready = request("ready");
            ready.set("uuids", Value(Array{Value(u)}));
            ready.set("flags", Value(std::uint64_t{0}));
            ready_.push_back(frameOf(ready));
            for (int election = 0; election < 2; ++election) {
                Message annotate = request("annotate");
                annotate.set("uuids", Value(Array{Value(u)}));
                annotate.set("annotations", Value{{"election", election}});
                annotate_.push_back(frameOf(annotate));
            }
        }
        for (const std::string& path : d.lockPaths) {
            Message lock = request("lock");
            lock.set("paths", Value(Array{Value(path)}));
            lock.set("flags", Value(std::uint64_t{2}));
            lock_.push_back(frameOf(lock));
        }
    }

    struct Result {
        std::uint64_t answered = 0, errors = 0, reconnects = 0;
        double seconds = 0;
        int fdsBefore = 0, fdsAfter = 0;
        long rssStart = 0, rssSettled = 0, rssPeak = 0, rssEnd = 0;
        std::string firstError;
    };

    Result run(int clients)
    {
        Result r;
        r.fdsBefore = settledDescriptors(d_.pid);
        r.rssStart = procStatusKiB(d_.pid, "VmRSS:");
        ep_ = ::epoll_create1(EPOLL_CLOEXEC);
        std::vector<SoakClient> conns(static_cast<std::size_t>(clients));
        auto start = Clock::now();
        for (std::size_t c = 0; c < conns.size(); ++c) {
            connect(conns[c], c);
            send(conns[c]);
        }
        const std::uint64_t settleAt = total_ * 15 / 100, sampleEvery = std::max<std::uint64_t>(1, total_ / 100);
        epoll_event events[64];
        std::uint8_t chunk[65536];
        while (r.answered < total_) {
            int n = ::epoll_wait(ep_, events, 64, 30000);
            if (n <= 0) {
                r.firstError = r.firstError.empty() ? "the daemon stopped answering for 30 s" : r.firstError;
                ++r.errors;
                break;
            }
            for (int i = 0; i < n; ++i) {
                SoakClient& c = conns[events[i].data.u64];
                ssize_t got = ::read(c.fd, chunk, sizeof chunk);
                if (got <= 0) {
                    note(r, "connection closed by the daemon");
                    ++r.answered; // its request is lost
                    connect(c, events[i].data.u64);
                    send(c);
                    continue;
                }
                c.in.insert(c.in.end(), chunk, chunk + got);
                while (c.in.size() >= VynFrame::kHeaderSize) {
                    auto header = VynFrame::parseHeader(std::span<const std::uint8_t, VynFrame::kHeaderSize>(
                        c.in.data(), VynFrame::kHeaderSize));
                    if (!header || c.in.size() < header->frameSize())
                        break;
                    Bytes frame(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(header->frameSize()));
                    c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(header->frameSize()));
                    answered(r, c, frame);
                    if (r.answered == settleAt)
                        r.rssSettled = procStatusKiB(d_.pid, "VmRSS:");
                    if (r.answered % sampleEvery == 0 && r.answered > settleAt)
                        r.rssPeak = std::max(r.rssPeak, procStatusKiB(d_.pid, "VmRSS:"));
                    if (++c.step == 100) {
                        ::close(c.fd);
                        ++r.reconnects;
                        connect(c, events[i].data.u64);
                    }
                    send(c);
                }
            }
        }
        r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        for (auto& c : conns)
            ::close(c.fd);
        ::close(ep_);
        // The daemon notices the closes on its own time.
        for (auto deadline = Clock::now() + std::chrono::seconds(10);
             (r.fdsAfter = openDescriptors(d_.pid)) != r.fdsBefore && Clock::now() < deadline;)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::this_thread::sleep_for(std::chrono::seconds(1));
        r.rssEnd = procStatusKiB(d_.pid, "VmRSS:");
        r.rssPeak = std::max(r.rssPeak, r.rssEnd);
        return r;
    }

private:
    void note(Result& r, const std::string& what)
    {
        if (r.errors++ == 0)
            r.firstError = what;
    }

    void connect(SoakClient& c, std::uint64_t index)
    {
        c = SoakClient{};
        c.fd = connectTo(d_.socket);
        if (c.fd < 0)
            die("cannot connect to " + d_.socket);
        epoll_event ev{EPOLLIN, {}};
        ev.data.u64 = index;
        ::epoll_ctl(ep_, EPOLL_CTL_ADD, c.fd, &ev);
    }

    // The next request of `c`, by its place on the connection: of every ten,
    // four "match", two "annotate", a "lock" and its release, two "ready".
    void send(SoakClient& c)
    {
        if (sent_ >= total_)
            return;
        ++sent_;
        const std::size_t pick = (sent_ / 10) % d_.readyUuids.size();
        Bytes frame;
        switch (c.step % 10) {
        case 4:
        case 5:
            frame = annotate_[pick * 2 + (sent_ & 1)];
            break;
        case 6:
            frame = lock_[pick % lock_.size()];
            break;
        case 7: {
            Message release = request("lock");
            release.set("uuids", Value(Array{Value(c.token)}));
            frame = frameOf(release);
            break;
        }
        case 8:
        case 9:
            frame = ready_[pick];
            break;
        default:
            frame = match_;
        }
        VynFrame::setMessageId(frame, ++c.id);
        if (!writeAll(c.fd, frame.data(), frame.size()))
            die("write to the daemon failed");
    }

    void answered(Result& r, SoakClient& c, const Bytes& frame)
    {
        ++r.answered;
        auto reply = decode(frame);
        if (!reply || reply->replyTo() != c.id) {
            note(r, "a reply that does not answer the request");
            return;
        }
        if (!succeeded(reply)) {
            const std::string* text = reply->stringForKey("error");
            note(r, "error reply: " + (text ? *text : std::string("?")));
            return;
        }
        if (c.step % 10 == 6) {
            const Uuid* token = reply->get("uuids").asUuid();
            if (!token)
                note(r, "a \"lock\" without a token");
            c.token = token ? *token : Uuid();
        } else if (c.step % 10 < 4 && reply->get("matches").isNull()) {
            note(r, "a \"match\" without matches");
        }
    }

    Daemon& d_;
    std::uint64_t total_, sent_ = 0;
    int ep_ = -1;
    Bytes match_;
    std::vector<Bytes> ready_, annotate_, lock_;
};

// The daemon's "holds" and "connections" through its status listener.
std::pair<std::int64_t, std::int64_t> statusFigures(const Daemon& d)
{
    int fd = connectTo(d.socket + ".status");
    if (fd < 0)
        return {-1, -1};
    setReadTimeout(fd, 30);
    auto reply = ask(fd, request("status"));
    ::close(fd);
    if (!succeeded(reply))
        return {-1, -1};
    return {reply->get("holds").integerValue(), reply->get("connections").integerValue()};
}

void checkSoak(std::uint64_t requests, bool leakCheck)
{
    auto d = startDaemon({}, leakCheck);
    constexpr int kClients = 64;
    Soak soak(*d, requests);
    auto r = soak.run(kClients);
    auto [holds, connections] = statusFigures(*d);
    report(r.errors == 0 && r.answered == requests && holds == 0,
           "soak: %" PRIu64 " requests answered (match 40%%, annotate 20%%, lock and release 20%%, ready 20%%) from "
           "%d clients, %" PRIu64 " reconnects, in %.0f s (%.0f/s); %" PRIu64
           " errors%s%s; holds left %" PRId64,
           r.answered, kClients, r.reconnects, r.seconds, static_cast<double>(r.answered) / r.seconds, r.errors,
           r.errors ? ", first: " : "", r.firstError.c_str(), holds);
    report(r.fdsAfter == r.fdsBefore && connections == 1,
           "soak descriptors: daemon's open descriptors %d before the run, %d after it; connections it counts "
           "after: %" PRId64 " (the status request's own)",
           r.fdsBefore, r.fdsAfter, connections);
    const long growth = r.rssEnd - r.rssSettled;
    if (leakCheck) // AddressSanitizer's quarantine keeps freed memory resident
        std::printf("soak memory: not checked under --leak-check (VmRSS %ld KiB settled, %ld KiB at the end)\n",
                    r.rssSettled, r.rssEnd);
    else
        report(r.rssSettled > 0 && growth <= 2048,
           "soak memory: VmRSS %ld KiB at start, %ld KiB settled (at 15%% of the requests), %ld KiB peak after, "
           "%ld KiB at the end: %+ld KiB from settled (limit +2048)",
           r.rssStart, r.rssSettled, r.rssPeak, r.rssEnd, growth);
    if (leakCheck) {
        int status = d->stop(SIGTERM);
        std::string text = d->logText();
        bool leak = text.find("LeakSanitizer") != std::string::npos;
        bool sanitizer = text.find("Sanitizer") != std::string::npos;
        report(status == 0 && !leak && !sanitizer,
               "leak check: tvd stopped by SIGTERM after %" PRIu64 " requests: exit status %d, %s", r.answered,
               status, leak ? "LeakSanitizer reported leaks (see the log)"
                            : sanitizer ? "a sanitizer reported an error (see the log)" : "no sanitizer report");
        if (gAnyFailed)
            std::fprintf(stderr, "tvd_soak: daemon log kept in %s\n", d->log.c_str());
    } else {
        d->stop();
    }
    if (!gAnyFailed)
        d->removeTree();
}

} // namespace

int main(int argc, char** argv)
{
    std::uint64_t requests = 1000000;
    bool leakCheck = false;
    std::set<std::string> checks;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--leak-check")
            leakCheck = true;
        else if (i + 1 < argc && a == "--tvd")
            gTvd = argv[++i];
        else if (i + 1 < argc && a == "--requests")
            requests = std::max<std::uint64_t>(100, std::strtoull(argv[++i], nullptr, 10));
        else if (i + 1 < argc && a == "--check")
            checks.insert(argv[++i]);
        else
            gTvd.clear(), i = argc;
    }
    const std::set<std::string> all{"connections", "output", "descriptors", "soak"};
    bool known = std::all_of(checks.begin(), checks.end(), [&](const auto& c) { return all.count(c); });
    if (gTvd.empty() || !known) {
        std::fprintf(stderr, "usage: tvd_soak --tvd PATH [--requests N] [--check connections|output|descriptors|soak]... "
                             "[--leak-check]\n");
        return 2;
    }
    if (checks.empty())
        checks = all;
    std::signal(SIGPIPE, SIG_IGN);
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);

    // Clients of other uids fork before any thread is started.
    if (checks.count("connections"))
        checkConnections();
    if (checks.count("output"))
        checkOutput();
    if (checks.count("descriptors"))
        checkDescriptors();
    if (checks.count("soak"))
        checkSoak(requests, leakCheck);
    return gAnyFailed ? 1 : 0;
}
