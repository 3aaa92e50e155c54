#include "tools/tvkit/Tvkit.h"

#include "Tarvik/TvDaemonClient.h"
#include "Tarvik/TvDiscoveryFlags.h"
#include "Tarvik/TvMessageConversion.h"
#include "base/InternalInconsistency.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/PlatformConfig.h"
#include "platform/formats/TypedJson.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iostream>
#include <iterator>
#include <mutex>
#include <pthread.h>
#include <sstream>
#include <thread>

namespace tv {

namespace {

const char* kOverview =
    "usage: tvkit [--service NAME] COMMAND [ARGS...]\n"
    "\n"
    "Talks to tvd, the plug-in registry daemon.\n"
    "\n"
    "Commands:\n"
    "  list [POINT]     list the installed plug-ins (manager entitlement)\n"
    "  match POINT [RULES]\n"
    "                   list the plug-ins that a host of extension point POINT\n"
    "                   is offered\n"
    "  add PATH...      register plug-in bundles\n"
    "  remove PATH...   unregister plug-in bundles\n"
    "  elect UUID...    elect plug-ins (the user's choice to use them)\n"
    "  unelect UUID...  withdraw the election of plug-ins\n"
    "  ready UUID...    prepare plug-ins for use by this process (\"ready\")\n"
    "  access UUID...   print a read-only token for each plug-in's bundle\n"
    "  hold PATH...     take plug-ins out of use while the command runs\n"
    "  release TOKEN    end a hold by its token\n"
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

const char* kListHelp =
    "usage: tvkit list [--json] [POINT]\n"
    "\n"
    "Lists the installed plug-ins, or those of the extension point POINT, one\n"
    "line each, ordered by identifier: identifier, version, UUID, extension\n"
    "point, election (0 no choice, 1 elected), path. With --json: a JSON array\n"
    "of objects with the keys identifier, version, uuid, extensionPoint,\n"
    "election and path.\n"
    "\n"
    "Every installed copy is listed, held or not and whatever its hosts need:\n"
    "tvkit sends a privileged \"match\", so the tvkit executable needs the\n"
    "entitlement com.veltra.private.tarvik.manager (given in the entitlements\n"
    "drop-in directory, docs/entitlements.md) and must not run in a sandbox.\n"
    "\n"
    "Exit status: 0 success, 1 the daemon refused the request (its code and\n"
    "message on standard error), 2 bad usage, 69 the daemon cannot be reached.\n";

const char* kMatchHelp =
    "usage: tvkit match [--json] [--all-versions] [--duplicates] [--system-only]\n"
    "                   [--all] [--flags N] POINT [RULES]\n"
    "\n"
    "Sends a \"match\" request for the extension point POINT and prints the\n"
    "plug-ins that tvd offers, one line each: identifier, version, UUID,\n"
    "election (0 no choice, 1 elected), path, and the override marks\n"
    "\"overrides=IDENTIFIER\" (this plug-in replaces that one) and\n"
    "\"overridden-by=UUID\". RULES is a JSON object of further match rules\n"
    "(typed JSON, docs/typed-json.md); its \"KoExtensionPointIdentifier\" is\n"
    "replaced by POINT. With --json the list is printed as a JSON array of\n"
    "objects with the keys identifier, version, uuid, path, election and, when\n"
    "marked, overrider and overriding.\n"
    "\n"
    "Flags: --all-versions (0x1) keeps every version, --duplicates (0x4) with\n"
    "it every copy, --system-only (0x8) only system plug-ins, --all (0x200,\n"
    "manager entitlement only) skips holds and host rights; --flags N adds the\n"
    "bits of N.\n"
    "\n"
    "Examples:\n"
    "  tvkit match com.veltra.share-services\n"
    "  tvkit match --json com.veltra.photo-editing '{\"KoUserElection\": \"=1\"}'\n"
    "\n"
    "Exit status: 0 success, 1 the daemon refused the request (its code and\n"
    "message on standard error), 2 bad usage, 69 the daemon cannot be reached.\n";

// One matching plug-in as the tool shows it, from its form.
Value summaryOf(const Value& form)
{
    // Shown as a plain JSON number: unsigned unless negative.
    std::int64_t e = form["annotations"]["election"].integerValue();
    Value election = e < 0 ? Value(e) : Value(static_cast<std::uint64_t>(e));
    Dictionary s{{"identifier", form["identifier"]},
                 {"version", form["version"]},
                 {"uuid", form["uuid"]},
                 {"path", form["path"]},
                 {"election", election}};
    if (!form["overrider"].isNull())
        s.emplace("overrider", form["overrider"]);
    if (!form["overriding"].isNull())
        s.emplace("overriding", form["overriding"]);
    return Value(std::move(s));
}

std::string textOf(const Value& v)
{
    if (const std::string* s = v.asString())
        return *s;
    if (v.isNull())
        return "-";
    return v.description();
}

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

const char* kReadyHelp =
    "usage: tvkit ready [--json] UUID...\n"
    "\n"
    "Asks tvd to prepare the plug-ins with these UUIDs for use by this tvkit\n"
    "process (a \"ready\" request): each must not be on hold and must allow\n"
    "this host; then each is registered with the job manager for it.\n"
    "\n"
    "  --json  print the reply as typed JSON\n"
    "\n"
    "Errors: 11 \"access to plugin ID denied: REASON\" when a plug-in is on hold\n"
    "or refuses this host (nothing is enabled then); 4 for an unknown UUID.\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

const char* kAccessHelp =
    "usage: tvkit access [--json] UUID...\n"
    "\n"
    "Asks tvd for read-only access to the bundles of the plug-ins with these\n"
    "UUIDs (an \"access\" request) and prints one token per plug-in, in the\n"
    "order given, one per line; with --json the reply as typed JSON.\n"
    "\n"
    "Errors: 4 for an unknown UUID or a bundle that cannot be granted.\n"
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

const char* kHoldHelp =
    "usage: tvkit hold [--json] [--apps] PATH...\n"
    "\n"
    "Places a hold on plug-ins (a \"lock\" request): while it lasts, hosts are not\n"
    "offered them. PATH names plug-in bundles, or with --apps applications, all\n"
    "of whose plug-ins are held; an application is refused while one of its\n"
    "plug-ins is running. Relative paths are taken from the working directory.\n"
    "\n"
    "Prints the hold's token, then waits, keeping the hold, until it is\n"
    "interrupted (SIGINT or SIGTERM) or its standard input ends (end of file);\n"
    "then it releases the hold and exits. The hold also ends when tvd loses the\n"
    "connection. Use </dev/null to place a hold and release it at once.\n"
    "\n"
    "  --apps  PATH names applications (with the busy check)\n"
    "  --json  print the reply as typed JSON instead of the bare token\n"
    "\n"
    "Errors: 14 \"plug-ins are busy\" (the running plug-ins are listed),\n"
    "9 \"invalid path: PATH\" or \"no plug-in at path:PATH\".\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

const char* kReleaseHelp =
    "usage: tvkit release [--json] TOKEN\n"
    "\n"
    "Ends the hold with this token (a \"lock\" request with \"uuids\"), whichever\n"
    "client placed it. An unknown or already released token is not an error.\n"
    "\n"
    "  --json  print the reply as typed JSON\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

struct CommandHelp {
    const char* name;
    const char* text;
};

const CommandHelp kHelp[] = {
    {"list", kListHelp}, {"match", kMatchHelp}, {"add", kAddHelp},       {"remove", kRemoveHelp},
    {"elect", kElectHelp}, {"unelect", kUnelectHelp},
    {"ready", kReadyHelp}, {"access", kAccessHelp}, {"hold", kHoldHelp}, {"release", kReleaseHelp},
    {"raw", kRawHelp},
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
// empty result with `problem` set when an option is unknown, or when there
// is no operand and `needsOne` says what is missing.
std::vector<std::string> operands(const std::vector<std::string>& args, bool& json, std::string& problem,
                                  const std::string& needsOne = {})
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
    if (out.empty() && !needsOne.empty())
        problem = needsOne;
    return out;
}

// Makes each path absolute (the daemon takes absolute paths only and
// canonicalises them itself); the problem with the first that cannot be.
std::string makeAbsolute(std::vector<std::string>& paths)
{
    for (auto& path : paths) {
        std::error_code ec;
        auto absolute = std::filesystem::absolute(path, ec);
        if (ec)
            return "cannot make " + path + " absolute: " + ec.message();
        path = absolute.string();
    }
    return {};
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
    if (command == "match")
        return match(args);
    if (command == "list")
        return list(args);
    if (command == "add" || command == "remove")
        return registration(command, args);
    if (command == "elect" || command == "unelect" || command == "ready" || command == "access")
        return byUuid(command, args);
    if (command == "hold")
        return hold(args);
    if (command == "release")
        return release(args);
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
    std::vector<std::string> paths = operands(args, json, problem, command + " needs at least one path");
    if (!problem.empty())
        return usage(problem);
    if (std::string unusable = makeAbsolute(paths); !unusable.empty())
        return usage(unusable);
    bool add = command == "add";
    return exchange([&](TvDaemonClient& client, TvDaemonClient::Reply reply) {
        if (add)
            client.addPlugInsReply(paths, std::move(reply));
        else
            client.removePlugInsReply(paths, std::move(reply));
    }, json);
}

int Tvkit::byUuid(const std::string& command, const std::vector<std::string>& args)
{
    bool json = false;
    std::string problem;
    std::vector<std::string> operandList = operands(args, json, problem, command + " needs at least one plug-in UUID");
    if (!problem.empty())
        return usage(problem);
    std::vector<Uuid> uuids;
    for (const auto& text : operandList) {
        auto uuid = Uuid::parse(text);
        if (!uuid)
            return usage("not a UUID: " + text);
        uuids.push_back(*uuid);
    }
    if (command == "ready")
        return exchange([&](TvDaemonClient& client, TvDaemonClient::Reply reply) {
            client.readyPlugInsFlagsReply(uuids, 0, std::move(reply));
        }, json);
    if (command == "access")
        return exchange(
            [&](TvDaemonClient& client, TvDaemonClient::Reply reply) {
                client.accessPlugInsFlagsReply(uuids, 0, std::move(reply));
            },
            json, [this](const Value& body) {
                if (const Array* tokens = body["extensions"].asArray())
                    for (const Value& token : *tokens)
                        out_ << textOf(token) << "\n";
            });
    Value change{{"election", Value(std::int64_t{command == "elect" ? 1 : 0})}};
    return exchange([&](TvDaemonClient& client, TvDaemonClient::Reply reply) {
        client.setPluginAnnotationsAnnotationsReply(uuids, change, std::move(reply));
    }, json);
}

int Tvkit::hold(const std::vector<std::string>& args)
{
    bool json = false;
    bool apps = false;
    std::vector<std::string> rest;
    for (const auto& a : args) {
        if (a == "--apps")
            apps = true;
        else
            rest.push_back(a);
    }
    std::string problem;
    std::vector<std::string> paths = operands(rest, json, problem, "hold needs at least one path");
    if (!problem.empty())
        return usage(problem);
    if (std::string unusable = makeAbsolute(paths); !unusable.empty())
        return usage(unusable);

    // The signals are taken by sigtimedwait() below; blocked before the IPC
    // service starts its threads, so that every thread inherits the mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &stop, &previous);
    struct Restore {
        sigset_t mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{previous};

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
    // The hold lives as long as this client's connection.
    TvDaemonClient client(vyn, service_.c_str());
    auto ask = [](const std::function<void(TvDaemonClient::Reply)>& send) {
        auto answered = std::make_shared<std::promise<platform::VynEvent>>();
        send([answered](const platform::VynEvent& a) { answered->set_value(a); });
        return answered->get_future().get();
    };
    platform::VynEvent answer = ask([&](TvDaemonClient::Reply reply) {
        client.holdPluginsFlagsReply(paths, apps ? 1 : 2, std::move(reply));
    });
    if (auto error = platform::eventError(answer)) {
        err_ << "tvkit: cannot reach tvd at " << service_ << ": " << error->description << "\n";
        return kExitUnavailable;
    }
    const platform::Message& reply = *platform::eventMessage(answer);
    if (json)
        out_ << platform::toTypedJson(reply.body()) << "\n";
    try {
        if (auto error = TvDaemonClient::errorInReply(answer)) {
            if (!json) {
                err_ << "tvkit: tvd refused the hold: " << error->description.value_or("") << " (error "
                     << error->code << ")\n";
                if (const Array* conflicts = reply.get("conflicts").asArray())
                    for (const Value& c : *conflicts)
                        err_ << "  busy: " << platform::toTypedJson(c) << "\n";
            }
            return kExitErrorReply;
        }
    } catch (const TvInternalInconsistency& e) {
        err_ << "tvkit: " << e.what() << "\n";
        return kExitErrorReply;
    }
    const Uuid* token = reply.get("uuids").asUuid();
    if (!token) {
        err_ << "tvkit: tvd granted the hold without a token\n";
        return kExitErrorReply;
    }
    if (!json)
        out_ << token->string() << "\n";
    out_.flush();

    // Standard input is read on its own thread until it ends; the wait
    // checks it between signal waits.
    auto inputEnded = std::make_shared<std::atomic<bool>>(false);
    std::thread reader([this, inputEnded] {
        char buffer[4096];
        while (in_.read(buffer, sizeof buffer) || in_.gcount() > 0) {
        }
        inputEnded->store(true);
    });
    const timespec tick{0, 100'000'000};
    while (!inputEnded->load()) {
        int got = sigtimedwait(&stop, nullptr, &tick);
        if (got == SIGINT || got == SIGTERM)
            break;
    }
    if (inputEnded->load())
        reader.join();
    else
        reader.detach(); // still blocked reading; the process is about to end

    // Released explicitly, so the hold is gone before the command exits.
    answer = ask([&](TvDaemonClient::Reply r) { client.releaseHoldReply(*token, std::move(r)); });
    if (platform::eventError(answer))
        err_ << "tvkit: connection to tvd lost; the hold ended with it\n";
    return kExitSuccess;
}

int Tvkit::release(const std::vector<std::string>& args)
{
    bool json = false;
    std::string problem;
    std::vector<std::string> tokens = operands(args, json, problem);
    if (!problem.empty())
        return usage(problem);
    if (tokens.size() != 1)
        return usage("release takes one hold token");
    auto token = Uuid::parse(tokens[0]);
    if (!token)
        return usage("not a UUID: " + tokens[0]);
    return exchange([&](TvDaemonClient& client, TvDaemonClient::Reply reply) {
        client.releaseHoldReply(*token, std::move(reply));
    }, json);
}

int Tvkit::request(const Send& send, platform::VynEvent& answer)
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
    // The first answer counts. A failed connection may report again after
    // this function returned, so the handler owns what it writes to.
    auto answered = std::make_shared<std::promise<platform::VynEvent>>();
    auto once = std::make_shared<std::once_flag>();
    auto future = answered->get_future();
    send(client, [answered, once](const platform::VynEvent& a) {
        std::call_once(*once, [&] { answered->set_value(a); });
    });
    answer = future.get();

    if (auto error = platform::eventError(answer)) {
        err_ << "tvkit: cannot reach tvd at " << service_ << ": " << error->description << "\n";
        return kExitUnavailable;
    }
    return kExitSuccess;
}

int Tvkit::exchange(const Send& send, bool printReply, const std::function<void(const Value&)>& printSuccess)
{
    platform::VynEvent answer;
    if (int status = request(send, answer); status != kExitSuccess)
        return status;
    if (printReply)
        out_ << platform::toTypedJson(platform::eventMessage(answer)->body()) << "\n";
    try {
        auto error = TvDaemonClient::errorInReply(answer);
        if (!error) {
            if (!printReply && printSuccess)
                printSuccess(platform::eventMessage(answer)->body());
            return kExitSuccess;
        }
        if (!printReply)
            err_ << "tvkit: tvd refused the request: " << error->description.value_or("") << " (error "
                 << error->code << ")\n";
        return kExitErrorReply;
    } catch (const TvInternalInconsistency& e) {
        err_ << "tvkit: " << e.what() << "\n";
        return kExitErrorReply;
    }
}

int Tvkit::match(const std::vector<std::string>& args)
{
    bool json = false;
    std::uint64_t flags = 0;
    std::vector<std::string> operands;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "-h" || a == "--help") {
            out_ << kMatchHelp;
            return kExitSuccess;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--all-versions") {
            flags |= TvDiscoverAllVersions;
        } else if (a == "--duplicates") {
            flags |= TvDiscoverDuplicates;
        } else if (a == "--system-only") {
            flags |= TvDiscoverSystemOnly;
        } else if (a == "--all") {
            flags |= TvDiscoverAll;
        } else if (a == "--flags") {
            if (i + 1 >= args.size())
                return usage("option --flags needs a number");
            const std::string& n = args[++i];
            char* end = nullptr;
            errno = 0;
            unsigned long long v = std::strtoull(n.c_str(), &end, 0);
            if (n.empty() || n[0] == '-' || *end != '\0' || errno != 0)
                return usage("--flags takes an unsigned number, not " + n);
            flags |= v;
        } else if (a.size() > 1 && a[0] == '-' && operands.empty()) {
            return usage("unknown option " + a + " for match");
        } else {
            operands.push_back(a);
        }
    }
    if (operands.empty() || operands.size() > 2)
        return usage("match takes an extension point and optional rules");

    Value rules = Value::emptyDictionary();
    if (operands.size() == 2) {
        auto parsed = platform::parseTypedJson(operands[1]);
        if (!parsed)
            return usage("rules are not valid typed JSON: " + parsed.error().localizedDescription());
        if (!parsed->isDictionary())
            return usage("rules must be a JSON object");
        rules = *parsed;
    }
    rules = rules.with("KoExtensionPointIdentifier", Value(operands[0]));

    Value decoded;
    if (int status = matchForms(rules, flags, decoded); status != kExitSuccess)
        return status;

    Array summaries;
    if (const Array* forms = decoded.asArray())
        for (const Value& form : *forms)
            summaries.push_back(summaryOf(form));
    if (json) {
        out_ << platform::toTypedJson(Value(std::move(summaries))) << "\n";
        return kExitSuccess;
    }
    for (const Value& s : summaries) {
        out_ << textOf(s["identifier"]) << "\t" << textOf(s["version"]) << "\t" << textOf(s["uuid"]) << "\t"
             << s["election"].integerValue() << "\t" << textOf(s["path"]);
        if (!s["overriding"].isNull())
            out_ << "\toverrides=" << textOf(s["overriding"]);
        if (!s["overrider"].isNull())
            out_ << "\toverridden-by=" << textOf(s["overrider"]);
        out_ << "\n";
    }
    return kExitSuccess;
}

int Tvkit::matchForms(const Value& rules, std::uint64_t flags, Value& forms)
{
    platform::VynEvent answer;
    int status = request(
        [&](TvDaemonClient& client, TvDaemonClient::Reply reply) {
            client.matchPlugInsFlagsReply(rules, flags, [&client, &forms, reply](const platform::VynEvent& a) {
                if (const auto* message = platform::eventMessage(a))
                    forms = client.convertFromVYN(message->get("matches"));
                reply(a);
            });
        },
        answer);
    if (status != kExitSuccess)
        return status;
    try {
        if (auto error = TvDaemonClient::errorInReply(answer)) {
            err_ << "tvkit: tvd refused the match (code " << error->code << "): " << error->description.value_or("")
                 << "\n";
            if (error->code == 11 && (flags & TvDiscoverAll))
                err_ << "tvkit: listing every plug-in needs the entitlement com.veltra.private.tarvik.manager"
                     << " for this tvkit executable (docs/entitlements.md), outside any sandbox\n";
            return kExitErrorReply;
        }
    } catch (const TvInternalInconsistency& e) {
        err_ << "tvkit: " << e.what() << "\n";
        return kExitErrorReply;
    }
    return kExitSuccess;
}

int Tvkit::list(const std::vector<std::string>& args)
{
    bool json = false;
    std::string problem;
    std::vector<std::string> points = operands(args, json, problem);
    if (!problem.empty())
        return usage(problem);
    if (points.size() > 1)
        return usage("list takes at most one extension point");
    Value rules = Value::emptyDictionary();
    if (!points.empty())
        rules = rules.with("KoExtensionPointIdentifier", Value(points[0]));

    // Every installed copy, held or not, whatever rights its hosts need.
    Value forms;
    if (int status = matchForms(rules, TvDiscoverAll | TvDiscoverAllVersions | TvDiscoverDuplicates, forms);
        status != kExitSuccess)
        return status;
    Array rows;
    if (const Array* all = forms.asArray())
        for (const Value& form : *all)
            rows.push_back(summaryOf(form).with("extensionPoint", form["info"]["KoExtensionPointIdentifier"]));
    std::sort(rows.begin(), rows.end(), [](const Value& a, const Value& b) {
        return std::pair(textOf(a["identifier"]), textOf(a["path"])) < std::pair(textOf(b["identifier"]), textOf(b["path"]));
    });
    if (json) {
        out_ << platform::toTypedJson(Value(std::move(rows))) << "\n";
        return kExitSuccess;
    }
    for (const Value& r : rows)
        out_ << textOf(r["identifier"]) << "\t" << textOf(r["version"]) << "\t" << textOf(r["uuid"]) << "\t"
             << textOf(r["extensionPoint"]) << "\t" << r["election"].integerValue() << "\t" << textOf(r["path"])
             << "\n";
    return kExitSuccess;
}

} // namespace tv
