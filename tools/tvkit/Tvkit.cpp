#include "tools/tvkit/Tvkit.h"

#include "tools/tvkit/TvkitHelp.h"

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
#include <iostream>
#include <iterator>
#include <mutex>
#include <pthread.h>
#include <sstream>
#include <thread>

namespace tv {

namespace {

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
        } else if (args.empty() && a == "--version") {
            out_ << "tvkit " << TVD_VERSION << "\n";
            return kExitSuccess;
        } else if (args.empty() && (a == "-h" || a == "--help")) {
            out_ << tvkitOverview();
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
    if (!args.empty() && isHelpOption(args[0]) && tvkitHelpFor(command)) {
        out_ << tvkitHelpFor(command);
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
    if (command == "status")
        return status(args);
    return usage("unknown command " + command);
}

int Tvkit::help(const std::vector<std::string>& args)
{
    if (args.empty()) {
        out_ << tvkitOverview();
        return kExitSuccess;
    }
    if (const char* text = tvkitHelpFor(args[0])) {
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
    return exchange([&body](TvDaemonClient& client) { return client.sendAndWait(platform::Message(body)); }, true);
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
    // In batches, so that a long list shows progress and a failure stops
    // at once; the daemon stops at the first failing path of a batch too.
    constexpr std::size_t kBatch = 100;
    const bool add = command == "add";
    for (std::size_t done = 0;;) {
        const std::size_t end = std::min(paths.size(), done + kBatch);
        std::vector<std::string> batch(paths.begin() + done, paths.begin() + end);
        platform::VynEvent answer;
        int status = request(
            [&](TvDaemonClient& client) {
                return client.sendAndWait(add ? client.addPlugInsRequest(batch) : client.removePlugInsRequest(batch));
            },
            answer);
        if (status != kExitSuccess)
            return status;
        bool failed = true;
        try {
            failed = TvDaemonClient::errorInReply(answer).has_value();
        } catch (const TvInternalInconsistency&) {
        }
        if (failed || end == paths.size())
            return report(answer, json);
        done = end;
        if (progress_)
            err_ << "tvkit: " << (add ? "registered " : "unregistered ") << done << " of " << paths.size()
                 << " bundles\n" << std::flush;
    }
}

int Tvkit::status(const std::vector<std::string>& args)
{
    bool json = false;
    std::string problem;
    std::vector<std::string> rest = operands(args, json, problem);
    if (!problem.empty())
        return usage(problem);
    if (!rest.empty())
        return usage("status takes no operands");
    platform::VynEvent answer;
    const std::string statusService = service_ + ".status";
    int status = request(
        [](TvDaemonClient& client) { return client.sendAndWait(client.request("status")); },
        answer, statusService);
    if (status != kExitSuccess)
        return status;
    status = report(answer, json, [this](const Value& s) {
        const std::uint64_t up = s["uptime"].unsignedValue();
        char uptime[64];
        std::snprintf(uptime, sizeof uptime, "%llud %02lluh %02llum %02llus",
                      static_cast<unsigned long long>(up / 86400), static_cast<unsigned long long>(up / 3600 % 24),
                      static_cast<unsigned long long>(up / 60 % 60), static_cast<unsigned long long>(up % 60));
        const std::uint64_t limit = s["cacheLimit"].unsignedValue();
        out_ << "service      " << textOf(s["service"]) << "\n"
             << "pid          " << s["pid"].unsignedValue() << "\n"
             << "uptime       " << uptime << "\n"
             << "connections  " << s["connections"].unsignedValue() << "\n"
             << "requests     " << s["requests"].unsignedValue() << "\n"
             << "holds        " << s["holds"].unsignedValue() << "\n"
             << "cache        " << s["cached"].unsignedValue() << " plug-in records, limit "
             << limit << "\n";
    });
    if (status == kExitErrorReply && !json)
        err_ << "tvkit: the daemon's status needs the entitlement com.veltra.private.tarvik.manager"
             << " for this tvkit executable (docs/entitlements.md)\n";
    return status;
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
        return exchange([&](TvDaemonClient& client) { return client.sendAndWait(client.readyPlugInsRequest(uuids, 0)); },
                        json);
    if (command == "access")
        return exchange(
            [&](TvDaemonClient& client) { return client.sendAndWait(client.accessPlugInsRequest(uuids, 0)); },
            json, [this](const Value& body) {
                if (const Array* tokens = body["extensions"].asArray())
                    for (const Value& token : *tokens)
                        out_ << textOf(token) << "\n";
            });
    Value change{{"election", Value(std::int64_t{command == "elect" ? 1 : 0})}};
    return exchange(
        [&](TvDaemonClient& client) { return client.sendAndWait(client.setPluginAnnotationsRequest(uuids, change)); },
        json);
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

    int status = kExitSuccess;
    auto vyn = openIpc(status);
    if (!vyn)
        return status;
    // The hold lives as long as this client's connection.
    TvDaemonClient client(vyn, service_.c_str());
    platform::VynEvent answer = client.sendAndWait(client.holdPluginsRequest(paths, apps ? 1 : 2));
    if (auto error = platform::eventError(answer))
        return unreachable(service_, error->description);
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
    answer = client.sendAndWait(client.releaseHoldRequest(*token));
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
    return exchange([&](TvDaemonClient& client) {
        return client.sendAndWait(client.releaseHoldRequest(*token));
    }, json);
}

std::shared_ptr<platform::VynService> Tvkit::openIpc(int& status)
{
    auto config = platform::PlatformConfig::load();
    if (!config) {
        err_ << "tvkit: " << config.error().localizedDescription() << "\n"
             << "tvkit: fix the file, or point TVD_CONFIG at the daemon's configuration.\n";
        status = kExitUsage;
        return nullptr;
    }
    auto vyn = platform::LinuxVynService::create(*config);
    if (!vyn) {
        err_ << "tvkit: cannot set up the IPC service\n";
        status = kExitUnavailable;
    }
    return vyn;
}

int Tvkit::unreachable(const std::string& service, const std::string& why)
{
    err_ << "tvkit: cannot reach tvd at " << service << ": " << why << "\n"
         << "tvkit: is tvd running? Start it with 'systemctl start tvd.socket' or run 'tvd';\n"
         << "tvkit: --service names another daemon, TVD_CONFIG another configuration.\n";
    return kExitUnavailable;
}

int Tvkit::request(const Send& send, platform::VynEvent& answer, const std::string& service)
{
    int status = kExitSuccess;
    auto vyn = openIpc(status);
    if (!vyn)
        return status;
    const std::string& name = service.empty() ? service_ : service;
    TvDaemonClient client(vyn, name.c_str());
    answer = send(client);
    if (auto error = platform::eventError(answer))
        return unreachable(name, error->description);
    return kExitSuccess;
}

int Tvkit::exchange(const Send& send, bool printReply, const std::function<void(const Value&)>& printSuccess)
{
    platform::VynEvent answer;
    if (int status = request(send, answer); status != kExitSuccess)
        return status;
    return report(answer, printReply, printSuccess);
}

int Tvkit::report(const platform::VynEvent& answer, bool printReply, const std::function<void(const Value&)>& printSuccess)
{
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
            out_ << tvkitHelpFor("match");
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
        [&](TvDaemonClient& client) {
            platform::VynEvent a = client.sendAndWait(client.matchPlugInsRequest(rules, flags));
            if (const auto* message = platform::eventMessage(a))
                forms = client.convertFromVYN(message->get("matches"));
            return a;
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
