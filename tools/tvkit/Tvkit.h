// Tvkit: the command-line tool with which people and scripts use the daemon.
//
//   tvkit [--service NAME] COMMAND [ARGS...]
//
// Exit statuses: 0 success, 1 the daemon answered with an error, 2 bad usage,
// 69 the daemon cannot be reached.
#pragma once

#include "platform/ipc/VynEvent.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace tv {

class TvDaemonClient;

class Tvkit {
public:
    static constexpr int kExitSuccess = 0;
    static constexpr int kExitErrorReply = 1;
    static constexpr int kExitUsage = 2;
    static constexpr int kExitUnavailable = 69;

    Tvkit(std::istream& in, std::ostream& out, std::ostream& err) : in_(in), out_(out), err_(err) {}

    int run(const std::vector<std::string>& args);

private:
    int usage(const std::string& problem);
    int help(const std::vector<std::string>& args);
    int raw(const std::vector<std::string>& args);
    int match(const std::vector<std::string>& args);
    // Connects to the daemon, lets `send` issue one request through the
    // client and waits for its answer. kExitSuccess with `answer` set, or
    // the exit status of the failure (reported on the error stream).
    int exchange(const std::function<void(TvDaemonClient&, std::function<void(const platform::VynEvent&)>)>& send,
                 platform::VynEvent& answer);

    std::istream& in_;
    std::ostream& out_;
    std::ostream& err_;
    std::string service_ = "com.veltra.tarvik.tvd";
};

} // namespace tv
