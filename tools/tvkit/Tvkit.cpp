#include "tools/tvkit/Tvkit.h"

#include "Tarvik/TvDaemonClient.h"
#include "Tarvik/TvMessageConversion.h"
#include "base/InternalInconsistency.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/PlatformConfig.h"
#include "platform/formats/TypedJson.h"

#include <chrono>
#include <filesystem>
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
    "  add PATH...      register plug-in bundles\n"
    "  remove PATH...   unregister plug-in bundles\n"
    "  elect UUID...    elect plug-ins (the user's choice to use them)\n"
    "  unelect UUID...  withdraw the election of plug-ins\n"
    "  raw [JSON]       send one request written as typed JSON, print the reply\n"
    "  help [COMMAND]   show help for a command\n"
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

const char* kAddHelp =
    "usage: tvkit add [--json] PATH...\n"
    "\n"
    "Registers the plug-in bundles at PATH with tvd (an \"add\" request). Relative\n"
    "paths are taken from the working directory. Paths are registered in order;\n"
    "the first that fails stops the request, and those before it stay registered.\n"
    "\n"
    "  --json  print the reply as typed JSON\n"
    "\n"
    "Errors: 9 \"invalid plugin path: PATH\" for a path that does not exist,\n"
    "2 \"unable to register plug-in at PATH\" when the registry refuses it.\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

const char* kRemoveHelp =
    "usage: tvkit remove [--json] PATH...\n"
    "\n"
    "Unregisters the plug-in bundles at PATH (a \"remove\" request), in order.\n"
    "tvd serves it only for clients entitled to manage the registry\n"
    "(com.veltra.private.tarvik.manager; docs/entitlements.md).\n"
    "\n"
    "  --json  print the reply as typed JSON\n"
    "\n"
    "Errors: 11 \"caller lacks entitlement for this operation\", 9 \"no plugin at\n"
    "PATH\" for a path where nothing is registered.\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

const char* kElectHelp =
    "usage: tvkit elect [--json] UUID...\n"
    "\n"
    "Elects the plug-ins with these UUIDs: stores \"election\" 1 in each one's\n"
    "annotation (an \"annotate\" request), so hosts that ask for elected plug-ins\n"
    "find them. Other annotation values are kept. One annotation-change\n"
    "notification is posted when every plug-in was changed.\n"
    "\n"
    "  --json  print the reply as typed JSON\n"
    "\n"
    "Errors: 4 \"no such plugin (uuid not found)\" for a UUID that tvd does not\n"
    "know; plug-ins named before it stay changed.\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

const char* kUnelectHelp =
    "usage: tvkit unelect [--json] UUID...\n"
    "\n"
    "Withdraws the election of the plug-ins with these UUIDs: stores \"election\"\n"
    "0 (no choice) in each one's annotation (an \"annotate\" request). Other\n"
    "annotation values are kept.\n"
    "\n"
    "  --json  print the reply as typed JSON\n"
    "\n"
    "Errors: 4 \"no such plugin (uuid not found)\" for a UUID that tvd does not\n"
    "know; plug-ins named before it stay changed.\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

struct CommandHelp {
    const char* name;
    const char* text;
};

const CommandHelp kHelp[] = {
    {"add", kAddHelp}, {"remove", kRemoveHelp}, {"elect", kElectHelp}, {"unelect", kUnelectHelp}, {"raw", kRawHelp},
};

const char* helpFor(const std::string& command)
{
    for (const auto& h : kHelp)
        if (command == h.name)
            return h.text;
    return nullptr;
}

bool isHelpOption(const std::string& a)
{
    return a == "-h" || a == "--help";
}

// Splits a command's arguments into its operands and the --json flag; an
// empty result with `problem` set when an option is unknown.
std::vector<std::string> operands(const std::vector<std::string>& args, bool& json, std::string& problem)
{
    std::vector<std::string> out;
    bool optionsEnded = false;
    for (const auto& a : args) {
        if (!optionsEnded && a == "--json")
            json = true;
        else if (!optionsEnded && a == "--")
            optionsEnded = true;
        else if (!optionsEnded && a.size() > 1 && a[0] == '-' && a[1] == '-') {
            problem = "unknown option " + a;
            return {};
        } else
            out.push_back(a);
    }
    return out;
}

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
    if (!args.empty() && isHelpOption(args[0]) && helpFor(command)) {
        out_ << helpFor(command);
        return kExitSuccess;
    }
    if (command == "raw")
        return raw(args);
    if (command == "add" || command == "remove")
        return registration(command, args);
    if (command == "elect" || command == "unelect")
        return election(command, args);
    return usage("unknown command " + command);
}

int Tvkit::help(const std::vector<std::string>& args)
{
    if (args.empty()) {
        out_ << kOverview;
        return kExitSuccess;
    }
    if (const char* text = helpFor(args[0])) {
        out_ << text;
        return kExitSuccess;
    }
    return usage("no help for unknown command " + args[0]);
}

int Tvkit::raw(const std::vector<std::string>& args)
{
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

    Value body = plainValueForVyn(*request);
    return exchange([&body](TvDaemonClient& client, TvDaemonClient::Reply reply) {
        client.sendReply(platform::Message(body), std::move(reply));
    }, true);
}

int Tvkit::registration(const std::string& command, const std::vector<std::string>& args)
{
    bool json = false;
    std::string problem;
    std::vector<std::string> paths = operands(args, json, problem);
    if (!problem.empty())
        return usage(problem);
    if (paths.empty())
        return usage(command + " needs at least one path");
    // The daemon takes absolute paths only; it canonicalises them itself.
    for (auto& path : paths) {
        std::error_code ec;
        auto absolute = std::filesystem::absolute(path, ec);
        if (ec)
            return usage("cannot make " + path + " absolute: " + ec.message());
        path = absolute.string();
    }
    bool add = command == "add";
    return exchange([&](TvDaemonClient& client, TvDaemonClient::Reply reply) {
        if (add)
            client.addPlugInsReply(paths, std::move(reply));
        else
            client.removePlugInsReply(paths, std::move(reply));
    }, json);
}

int Tvkit::election(const std::string& command, const std::vector<std::string>& args)
{
    bool json = false;
    std::string problem;
    std::vector<std::string> operandList = operands(args, json, problem);
    if (!problem.empty())
        return usage(problem);
    if (operandList.empty())
        return usage(command + " needs at least one plug-in UUID");
    std::vector<Uuid> uuids;
    for (const auto& text : operandList) {
        auto uuid = Uuid::parse(text);
        if (!uuid)
            return usage("not a UUID: " + text);
        uuids.push_back(*uuid);
    }
    Value change{{"election", Value(std::int64_t{command == "elect" ? 1 : 0})}};
    return exchange([&](TvDaemonClient& client, TvDaemonClient::Reply reply) {
        client.setPluginAnnotationsAnnotationsReply(uuids, change, std::move(reply));
    }, json);
}

int Tvkit::exchange(const Send& send, bool printReply)
{
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
    send(client, [&answered](const platform::VynEvent& answer) { answered.set_value(answer); });
    platform::VynEvent answer = answered.get_future().get();

    if (auto error = platform::eventError(answer)) {
        err_ << "tvkit: cannot reach tvd at " << service_ << ": " << error->description << "\n";
        return kExitUnavailable;
    }
    if (printReply)
        out_ << platform::toTypedJson(platform::eventMessage(answer)->body()) << "\n";
    try {
        auto error = TvDaemonClient::errorInReply(answer);
        if (!error)
            return kExitSuccess;
        if (!printReply)
            err_ << "tvkit: tvd refused the request: " << error->description.value_or("") << " (error "
                 << error->code << ")\n";
        return kExitErrorReply;
    } catch (const TvInternalInconsistency& e) {
        err_ << "tvkit: " << e.what() << "\n";
        return kExitErrorReply;
    }
}

} // namespace tv
