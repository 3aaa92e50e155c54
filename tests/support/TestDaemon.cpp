#include "tests/support/TestDaemon.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
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

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    for (auto deadline = std::chrono::steady_clock::now() + timeout; !condition();
         std::this_thread::sleep_for(std::chrono::milliseconds(2)))
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    return true;
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

pid_t startProgram(std::vector<std::string> argv, const std::map<std::string, std::string>& env,
                   const std::string& outPath, const std::string& errPath, int stdinFd)
{
    pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    ::dup2(stdinFd >= 0 ? stdinFd : ::open("/dev/null", O_RDONLY), 0);
    ::dup2(::open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 1);
    ::dup2(errPath == outPath ? 1 : ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
    for (const char* name : {"JOURNAL_STREAM", "LISTEN_FDS", "LISTEN_PID", "NOTIFY_SOCKET"})
        ::unsetenv(name);
    for (const auto& [k, v] : env)
        ::setenv(k.c_str(), v.c_str(), 1);
    std::vector<char*> args;
    for (auto& s : argv)
        args.push_back(s.data());
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    _exit(127);
}

static int exitCode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

ProcessResult runProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                         std::chrono::milliseconds timeout)
{
    TempDir dir;
    int status = waitForExit(startProgram(argv, env, dir.file("out"), dir.file("err")), timeout);
    ProcessResult r;
    r.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = readFile(dir.file("out"));
    r.err = readFile(dir.file("err"));
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

// A Unix stream socket with `path` as its address, or -1.
static int unixSocket(const std::string& path, sockaddr_un& addr)
{
    addr = sockaddr_un{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return -1;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

int connectUnix(const std::string& path)
{
    sockaddr_un addr;
    int fd = unixSocket(path, addr);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int listenUnix(const std::string& path)
{
    sockaddr_un addr;
    int fd = unixSocket(path, addr);
    if (fd >= 0 && (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 16) != 0)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool TestDaemon::start(std::vector<std::string> args, std::map<std::string, std::string> env)
{
    std::vector<std::string> argv{TVD_BINARY, "-S", socketPath_};
    for (std::size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == "-S") {
            const std::string& name = args[i + 1];
            socketPath_ = name.find('/') != std::string::npos ? name : dir_.file("run/vyn/" + name);
            argv.resize(1);
        }
    }
    argv.insert(argv.end(), args.begin(), args.end());
    env["TVD_CONFIG"] = configPath_;
    env.try_emplace("TVD_LOG_LEVEL", "debug");
    env.try_emplace("TVD_LOG_PRIVATE", "1");
    pid_ = startProgram(argv, env, logPath_, logPath_);
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
         std::chrono::steady_clock::now() < deadline && running();
         std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        if (int fd = connectUnix(socketPath_); fd >= 0) {
            ::close(fd);
            return true;
        }
    }
    return false;
}

bool TestDaemon::running()
{
    if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == pid_)
        pid_ = -1;
    return pid_ > 0;
}

int TestDaemon::stop()
{
    if (pid_ <= 0)
        return -1;
    ::kill(pid_, SIGTERM);
    int status = waitForExit(pid_, std::chrono::seconds(10));
    pid_ = -1;
    return exitCode(status);
}

ProcessResult TestDaemon::tvkit(std::vector<std::string> args) const
{
    args.insert(args.begin(), {TVKIT_BINARY, "--service", socketPath_});
    return runProgram(args, clientEnv());
}

std::string TestDaemon::log() const { return readFile(logPath_); }

bool TestDaemon::waitForLog(const std::string& text, std::chrono::milliseconds timeout) const
{
    return eventually([&] { return log().find(text) != std::string::npos; }, timeout);
}

} // namespace tv::test
