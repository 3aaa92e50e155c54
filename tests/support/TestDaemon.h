// TestDaemon: runs the real tvd binary for an end-to-end test, inside a
// private temporary platform: its own configuration file (TVD_CONFIG), socket
// directory and runtime directory, with the example applications and SDKs of
// examples/platform. Standard error is kept in a file for assertions. The
// daemon is stopped (SIGTERM, then SIGKILL) when the object goes away.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tv::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// The whole contents of the file at `path` ("" when it cannot be read).
std::string readFile(const std::string& path);
// Polls `condition` every few milliseconds; false when it still does not hold
// after `timeout`.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(5));

struct ProcessResult {
    int exitStatus = -1; // -1 when killed by a signal
    std::string out;
    std::string err;
};

// Starts a program with `env` added to a scrubbed environment, standard
// input from `stdinFd` (or /dev/null) and its output appended to the files.
pid_t startProgram(std::vector<std::string> argv, const std::map<std::string, std::string>& env,
                   const std::string& outPath, const std::string& errPath, int stdinFd = -1);
// Runs a program to completion with extra environment variables; output is
// collected. Gives up (kills it) after `timeout`.
ProcessResult runProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {},
                         std::chrono::milliseconds timeout = std::chrono::seconds(30));

class TestDaemon {
public:
    // Prepares the platform; extra configuration lines are appended.
    explicit TestDaemon(std::vector<std::string> extraConfig = {});
    ~TestDaemon();

    // Starts tvd with these arguments (the service name is the socket path
    // unless args give "-S", whose socket is then waited for). Waits until
    // the socket accepts connections.
    // Returns false when it did not come up in time.
    bool start(std::vector<std::string> args = {}, std::map<std::string, std::string> env = {});
    // SIGTERM and wait; returns the exit status (or -signal).
    int stop();
    bool running();

    const std::string& socketPath() const { return socketPath_; }
    const std::string& configPath() const { return configPath_; }
    std::string root() const { return dir_.path(); }
    pid_t pid() const { return pid_; }
    // What the daemon wrote to standard error so far.
    std::string log() const;
    // Waits until the log contains `text`.
    bool waitForLog(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Environment for tvkit and other clients of this platform.
    std::map<std::string, std::string> clientEnv() const { return {{"TVD_CONFIG", configPath_}}; }
    // Runs tvkit with `args` against this daemon's socket.
    ProcessResult tvkit(std::vector<std::string> args) const;

private:
    TempDir dir_;
    std::string configPath_;
    std::string socketPath_;
    std::string logPath_;
    pid_t pid_ = -1;
};

// Connects a raw Unix stream socket to `path`; -1 on failure.
int connectUnix(const std::string& path);
// A Unix stream socket bound to `path` and listening, as a service manager
// hands one to a socket-activated process; -1 on failure.
int listenUnix(const std::string& path);

} // namespace tv::test
