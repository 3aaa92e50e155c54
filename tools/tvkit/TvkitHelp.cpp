#include "tools/tvkit/TvkitHelp.h"

namespace tv {

namespace {

const char* const kOverview =
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
    "  status           show the daemon's state (manager entitlement)\n"
    "  help [COMMAND]   show help for a command\n"
    "\n"
    "Options:\n"
    "  --service NAME  the daemon's service name (default com.veltra.tarvik.tvd);\n"
    "                  a name with \"/\" is a socket path\n"
    "  -h, --help      show this help\n"
    "  --version       print tvkit's version\n"
    "\n"
    "Exit status: 0 success, 1 the daemon answered with an error, 2 bad usage,\n"
    "69 the daemon cannot be reached. TVD_CONFIG names the platform configuration.\n";

const char* const kListHelp =
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

const char* const kMatchHelp =
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

const char* const kRawHelp =
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

const char* const kAddHelp =
    "usage: tvkit add [--json] PATH...\n"
    "\n"
    "Registers the plug-in bundles at PATH with tvd (an \"add\" request). Relative\n"
    "paths are taken from the working directory. Paths are registered in order;\n"
    "the first that fails stops the request, and those before it stay registered.\n"
    "Many paths are sent 100 at a time; between them, when standard error is a\n"
    "terminal, a line there tells how many are done.\n"
    "\n"
    "  --json  print the reply as typed JSON\n"
    "\n"
    "Errors: 9 \"invalid plugin path: PATH\" for a path that does not exist,\n"
    "2 \"unable to register plug-in at PATH\" when the registry refuses it.\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

const char* const kRemoveHelp =
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

const char* const kReadyHelp =
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

const char* const kAccessHelp =
    "usage: tvkit access [--json] UUID...\n"
    "\n"
    "Asks tvd for read-only access to the bundles of the plug-ins with these\n"
    "UUIDs (an \"access\" request) and prints one token per plug-in, in the\n"
    "order given, one per line; with --json the reply as typed JSON.\n"
    "\n"
    "Errors: 4 for an unknown UUID or a bundle that cannot be granted.\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

const char* const kElectHelp =
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

const char* const kUnelectHelp =
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

const char* const kHoldHelp =
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

const char* const kReleaseHelp =
    "usage: tvkit release [--json] TOKEN\n"
    "\n"
    "Ends the hold with this token (a \"lock\" request with \"uuids\"), whichever\n"
    "client placed it. An unknown or already released token is not an error.\n"
    "\n"
    "  --json  print the reply as typed JSON\n"
    "\n"
    "Exit status: 0 success, 1 error reply, 2 bad usage, 69 tvd unreachable.\n";

const char* const kStatusHelp =
    "usage: tvkit status [--json]\n"
    "\n"
    "Shows the state of the running daemon: its service name, process id,\n"
    "uptime, open connections (this one included), requests begun since it\n"
    "started, plug-in holds, and cached plug-in records with the cache limit.\n"
    "tvd answers on its status socket, the service name with \".status\"\n"
    "appended, and only to executables with the entitlement\n"
    "com.veltra.private.tarvik.manager (docs/entitlements.md).\n"
    "\n"
    "  --json  print the figures as one JSON object with the keys service, pid,\n"
    "          uptime (seconds), connections, requests, holds, cached and\n"
    "          cacheLimit (0: at most the record just made)\n"
    "\n"
    "Exit status: 0 success, 1 refused, 2 bad usage, 69 tvd not running.\n";

struct CommandHelp {
    const char* name;
    const char* text;
};

const CommandHelp kHelp[] = {
    {"list", kListHelp}, {"match", kMatchHelp}, {"add", kAddHelp},       {"remove", kRemoveHelp},
    {"elect", kElectHelp}, {"unelect", kUnelectHelp},
    {"ready", kReadyHelp}, {"access", kAccessHelp}, {"hold", kHoldHelp}, {"release", kReleaseHelp},
    {"raw", kRawHelp}, {"status", kStatusHelp},
};

} // namespace

const char* tvkitOverview()
{
    return kOverview;
}

const char* tvkitHelpFor(const std::string& command)
{
    for (const auto& h : kHelp)
        if (command == h.name)
            return h.text;
    return nullptr;
}

} // namespace tv
