// TvdCommandLine: the daemon's command line, "tvd [-S servicename] [-v]"
// plus "-c" (cache limit) and "-d" (database location).
//
// Options are read in order with the option string "c:d:S:v"; a later
// occurrence replaces an earlier one. "-c" converts like atoi (no range or
// syntax check: text without leading digits gives 0). Each "-v" counts once
// and logs that verbosity is set through the log configuration instead.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tv {

struct TvdCommandLine {
    static constexpr const char* kDefaultServiceName = "com.veltra.tarvik.tvd";
    static constexpr const char* kUsage = "Usage: tvd [-S servicename] [-v]\n";

    std::string serviceName = kDefaultServiceName;
    std::uint32_t cacheLimit = 1000000;
    std::optional<std::string> databaseLocation;
    std::uint32_t verbose = 0;

    // The parsed command line, or none for a usage error (an unknown option,
    // a missing option argument, or an operand after the options). Not
    // thread-safe: uses getopt's process-wide state.
    static std::optional<TvdCommandLine> parse(int argc, char* const argv[]);
};

} // namespace tv
