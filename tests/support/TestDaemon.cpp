#include "tests/support/TestDaemon.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tv::test {

TempDir::TempDir()
{
    std::string tmpl = (std::filesystem::temp_directory_path() / "tvd-test-XXXXXX").string();
    if (!::mkdtemp(tmpl.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

static std::string readAll(int fd)
{
    std::string s;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0)
        s.append(buf, static_cast<std::size_t>(n));
    return s;
}

// Reaps `pid` and returns its wait status; a process still running after
// `timeout` is killed first.
static int waitForExit(pid_t pid, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return status;
}

static std::vector<char*> cstrings(std::vector<std::string>& v)
{
    std::vector<char*> out;
    for (auto& s : v)
        out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

ProcessResult runProgram(const std::vector<std::string>& argvIn, const std::map<std::string, std::string>& env,
                         std::chrono::milliseconds timeout)
{
    TempDir dir;
    std::string outPath = dir.file("out"), errPath = dir.file("err");
    pid_t pid = ::fork();
    if (pid == 0) {
        int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        for (const auto& [k, v] : env)
            ::setenv(k.c_str(), v.c_str(), 1);
        std::vector<std::string> argv = argvIn;
        auto args = cstrings(argv);
        ::execv(args[0], args.data());
        _exit(127);
    }
    ProcessResult r;
    int status = waitForExit(pid, timeout);
    if (WIFEXITED(status))
        r.exitStatus = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        r.signal = WTERMSIG(status);
    int fo = ::open(outPath.c_str(), O_RDONLY), fe = ::open(errPath.c_str(), O_RDONLY);
    r.out = readAll(fo);
    r.err = readAll(fe);
    ::close(fo);
    ::close(fe);
    return r;
}

TestDaemon::TestDaemon(std::vector<std::string> extraConfig)
{
    std::filesystem::create_directories(dir_.file("run/vyn"));
    std::filesystem::create_directories(dir_.file("run/tvd"));
    socketPath_ = dir_.file("run/vyn/tvd.sock");
    logPath_ = dir_.file("tvd.log");
    configPath_ = dir_.file("tvd.conf");
    std::string examples = std::string(TVD_SOURCE_DIR) + "/examples/platform";
    std::ofstream conf(configPath_);
    conf << "socket_dir = " << dir_.file("run/vyn") << "\n"
         << "runtime_dir = " << dir_.file("run/tvd") << "\n"
         << "application_roots = " << examples << "/Applications\n"
         << "system_volume_root = " << examples << "/System\n"
         << "system_plugins_dir = " << examples << "/System/Library/PlugIns\n"
         << "sdk_dir = " << examples << "/System/Library/ExtensionSDKs\n"
         << "types_dir = " << examples << "/System/Library/Types\n"
         << "registry_database = " << dir_.file("registry.sqlite") << "\n"
         << "containers_root = " << dir_.file("containers") << "\n"
         << "preferences_dir = " << dir_.file("preferences") << "\n"
         << "global_annotations = " << dir_.file("Tarvik-Annotations") << "\n"
         << "privacy_grants = " << dir_.file("privacy-grants.vlist") << "\n"
         << "entitlements_dir = " << dir_.file("entitlements.d") << "\n";
    for (const auto& line : extraConfig)
        conf << line << "\n";
}

TestDaemon::~TestDaemon()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

int connectUnix(const std::string& path)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        ::close(fd);
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int listenUnix(const std::string& path)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (fd < 0 || path.size() >= sizeof addr.sun_path) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 16) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool TestDaemon::start(std::vector<std::string> args, std::map<std::string, std::string> env)
{
    bool hasName = false;
    for (std::size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == "-S") {
            hasName = true;
            const std::string& name = args[i + 1];
            socketPath_ = name.find('/') != std::string::npos ? name : dir_.file("run/vyn/" + name);
        }
    }
    std::vector<std::string> argv{TVD_BINARY};
    if (!hasName) {
        argv.push_back("-S");
        argv.push_back(socketPath_);
    }
    argv.insert(argv.end(), args.begin(), args.end());
    env["TVD_CONFIG"] = configPath_;
    if (!env.count("TVD_LOG_LEVEL"))
        env["TVD_LOG_LEVEL"] = "debug";
    if (!env.count("TVD_LOG_PRIVATE"))
        env["TVD_LOG_PRIVATE"] = "1";
    pid_ = ::fork();
    if (pid_ == 0) {
        int log = ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, 0);
        ::dup2(log, 1);
        ::dup2(log, 2);
        ::unsetenv("JOURNAL_STREAM");
        ::unsetenv("LISTEN_FDS");
        ::unsetenv("LISTEN_PID");
        ::unsetenv("NOTIFY_SOCKET");
        for (const auto& [k, v] : env)
            ::setenv(k.c_str(), v.c_str(), 1);
        auto a = cstrings(argv);
        ::execv(a[0], a.data());
        _exit(127);
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        int fd = connectUnix(socketPath_);
        if (fd >= 0) {
            ::close(fd);
            return true;
        }
        if (!running())
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool TestDaemon::running()
{
    if (pid_ <= 0)
        return false;
    int status;
    pid_t w = ::waitpid(pid_, &status, WNOHANG);
    if (w == pid_) {
        pid_ = -1;
        return false;
    }
    return true;
}

int TestDaemon::stop()
{
    if (pid_ <= 0)
        return -1;
    ::kill(pid_, SIGTERM);
    int status = waitForExit(pid_, std::chrono::seconds(10));
    pid_ = -1;
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return -WTERMSIG(status);
}

std::string TestDaemon::log() const
{
    std::ifstream in(logPath_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool TestDaemon::waitForLog(const std::string& text, std::chrono::milliseconds timeout) const
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (log().find(text) != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

} // namespace tv::test
