#include "tools/tvkit/Tvkit.h"

#include "Tarvik/TvDaemonClient.h"
#include "Tarvik/TvMessageConversion.h"
#include "base/InternalInconsistency.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/PlatformConfig.h"
#include "platform/formats/TypedJson.h"

#include <chrono>
#include <future>
#include <iostream>
#include <iterator>
#include <sstream>

namespace tv {

namespace {

const char* kOverview =
    "usage: tvkit [--service NAME] COMMAND [ARGS...]\n"
    "\n"
    "Talks to tvd, the plug-in registry daemon.\n"
    "\n"
    "Commands:\n"
    "  raw [JSON]      send one request written as typed JSON, print the reply\n"
    "  help [COMMAND]  show help for a command\n"
    "\n"
    "Options:\n"
    "  --service NAME  the daemon's service name (default com.veltra.tarvik.tvd);\n"
    "                  a name with \"/\" is a socket path\n"
    "  -h, --help      show this help\n"
    "\n"
    "Exit status: 0 success, 1 the daemon answered with an error, 2 bad usage,\n"
    "69 the daemon cannot be reached. TVD_CONFIG names the platform configuration.\n";

const char* kRawHelp =
    "usage: tvkit raw [JSON]\n"
    "\n"
    "Sends one request to tvd and prints its reply, both as typed JSON\n"
    "(docs/typed-json.md). The request is the argument, or standard input when\n"
    "there is none. It must be an object; \"request\" names the request type and\n"
    "\"version\" the protocol version (3). Bare non-negative integers are\n"
    "unsigned, as the protocol expects; {\"$uuid\": \"...\"} makes a UUID.\n"
    "\n"
    "Examples:\n"
    "  tvkit raw '{\"request\": \"bulk\", \"version\": 3}'\n"
    "  tvkit raw '{\"request\": \"ready\", \"version\": 3,\n"
    "              \"uuids\": [{\"$uuid\": \"6F1C2A6E-3B1D-4C55-9A51-4E0C8C5D9B10\"}]}'\n"
    "\n"
    "Exit status: 0 for a success reply, 1 for an error reply (its \"errorcode\"\n"
    "and \"error\" are in the printed reply), 2 for bad usage or a request that\n"
    "is not valid typed JSON, 69 when the daemon cannot be reached.\n";

} // namespace

int Tvkit::usage(const std::string& problem)
{
    err_ << "tvkit: " << problem << "\n" << "Try 'tvkit --help'.\n";
    return kExitUsage;
}

int Tvkit::run(const std::vector<std::string>& argsIn)
{
    std::vector<std::string> args;
    for (std::size_t i = 0; i < argsIn.size(); ++i) {
        const std::string& a = argsIn[i];
        if (args.empty() && (a == "--service" || a == "-S")) {
            if (i + 1 >= argsIn.size())
                return usage("option " + a + " needs a service name");
            service_ = argsIn[++i];
        } else if (args.empty() && a.rfind("--service=", 0) == 0) {
            service_ = a.substr(10);
        } else if (args.empty() && (a == "-h" || a == "--help")) {
            out_ << kOverview;
            return kExitSuccess;
        } else if (args.empty() && a.size() > 1 && a[0] == '-') {
            return usage("unknown option " + a);
        } else {
            args.push_back(a);
        }
    }
    if (args.empty())
        return usage("no command given");
    std::string command = args.front();
    args.erase(args.begin());
    if (command == "help")
        return help(args);
    if (command == "raw")
        return raw(args);
    return usage("unknown command " + command);
}

int Tvkit::help(const std::vector<std::string>& args)
{
    if (args.empty()) {
        out_ << kOverview;
        return kExitSuccess;
    }
    if (args[0] == "raw") {
        out_ << kRawHelp;
        return kExitSuccess;
    }
    return usage("no help for unknown command " + args[0]);
}

int Tvkit::raw(const std::vector<std::string>& args)
{
    if (!args.empty() && (args[0] == "-h" || args[0] == "--help")) {
        out_ << kRawHelp;
        return kExitSuccess;
    }
    if (args.size() > 1)
        return usage("raw takes one request");
    std::string text;
    if (args.empty())
        text.assign(std::istreambuf_iterator<char>(in_), std::istreambuf_iterator<char>());
    else
        text = args[0];
    auto request = platform::parseTypedJson(text);
    if (!request)
        return usage("request is not valid typed JSON: " + request.error().localizedDescription());
    if (!request->isDictionary())
        return usage("request must be a JSON object");

    auto config = platform::PlatformConfig::load();
    if (!config) {
        err_ << "tvkit: " << config.error().localizedDescription() << "\n";
        return kExitUsage;
    }
    auto vyn = platform::LinuxVynService::create(*config);
    if (!vyn) {
        err_ << "tvkit: cannot set up the IPC service\n";
        return kExitUnavailable;
    }
    TvDaemonClient client(vyn, service_.c_str());
    std::promise<platform::VynEvent> answered;
    client.sendReply(platform::Message(plainValueForVyn(*request)),
                     [&answered](const platform::VynEvent& answer) { answered.set_value(answer); });
    platform::VynEvent answer = answered.get_future().get();

    if (auto error = platform::eventError(answer)) {
        err_ << "tvkit: cannot reach tvd at " << service_ << ": " << error->description << "\n";
        return kExitUnavailable;
    }
    out_ << platform::toTypedJson(platform::eventMessage(answer)->body()) << "\n";
    try {
        return TvDaemonClient::errorInReply(answer) ? kExitErrorReply : kExitSuccess;
    } catch (const TvInternalInconsistency& e) {
        err_ << "tvkit: " << e.what() << "\n";
        return kExitErrorReply;
    }
}

} // namespace tv
