// Tvkit: the command-line tool with which people and scripts use the daemon.
//
//   tvkit [--service NAME] COMMAND [ARGS...]
//
// Exit statuses: 0 success, 1 the daemon answered with an error, 2 bad usage,
// 69 the daemon cannot be reached.
#pragma once

#include "Tarvik/TvDaemonClient.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace tv {

class Tvkit {
public:
    static constexpr int kExitSuccess = 0;
    static constexpr int kExitErrorReply = 1;
    static constexpr int kExitUsage = 2;
    static constexpr int kExitUnavailable = 69;

    Tvkit(std::istream& in, std::ostream& out, std::ostream& err) : in_(in), out_(out), err_(err) {}

    int run(const std::vector<std::string>& args);

    // Whether to report progress of long operations on standard error
    // (when it is a terminal).
    void setProgress(bool progress) { progress_ = progress; }

private:
    // Builds and sends one request on `client` and returns its answer.
    using Send = std::function<platform::VynEvent(TvDaemonClient& client)>;

    int usage(const std::string& problem);
    int help(const std::vector<std::string>& args);
    int raw(const std::vector<std::string>& args);
    int match(const std::vector<std::string>& args);
    int list(const std::vector<std::string>& args);
    // Sends "match" with `rules` and `flags`: kExitSuccess with the decoded
    // forms in `forms`, or the exit status of a failure (reported).
    int matchForms(const Value& rules, std::uint64_t flags, Value& forms);
    int registration(const std::string& command, const std::vector<std::string>& args);
    // elect, unelect, ready and access: a request naming plug-ins by UUID.
    int byUuid(const std::string& command, const std::vector<std::string>& args);
    // Places a hold, prints its token and keeps the connection (and with it
    // the hold) until SIGINT or SIGTERM arrives or standard input ends.
    int hold(const std::vector<std::string>& args);
    int release(const std::vector<std::string>& args);
    // The daemon's figures, from its status listener.
    int status(const std::vector<std::string>& args);
    // Sends one request to the daemon and reports its answer: the reply as
    // typed JSON on standard output when `printReply`, else an error reply as
    // a line on standard error. Returns the exit status.
    // `printSuccess`, when set and the reply is not printed whole, shows a
    // successful reply's body.
    int exchange(const Send& send, bool printReply, const std::function<void(const Value&)>& printSuccess = {});
    // The reporting half of exchange(), for an answer already received.
    int report(const platform::VynEvent& answer, bool printReply,
               const std::function<void(const Value&)>& printSuccess = {});
    // Sends one request to `service` (empty: the daemon's) and waits for its
    // answer: kExitSuccess with `answer` set, or the exit status of a failure
    // to reach it (reported).
    int request(const Send& send, platform::VynEvent& answer, const std::string& service = {});
    // The IPC service for a client; null with `status` set (and the problem
    // reported) when the configuration or the service cannot be had.
    std::shared_ptr<platform::VynService> openIpc(int& status);
    // Reports that `service` cannot be reached, with what to do about it.
    int unreachable(const std::string& service, const std::string& why);

    std::istream& in_;
    std::ostream& out_;
    std::ostream& err_;
    std::string service_ = "com.veltra.tarvik.tvd";
    bool progress_ = false;
};

} // namespace tv
