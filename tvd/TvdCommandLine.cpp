#include "tvd/TvdCommandLine.h"

#include "Tarvik/TvLog.h"

#include <cstdlib>
#include <unistd.h>

namespace tv {

std::optional<TvdCommandLine> TvdCommandLine::parse(int argc, char* const argv[])
{
    TvdCommandLine line;
    // getopt's own complaints would add lines the usage text doesn't have.
    opterr = 0;
    optind = 0; // 0 makes glibc re-initialise, so parse() can run more than once
    int c;
    // "+": options end at the first operand, as POSIX parses them (glibc
    // would otherwise move later options in front of it).
    while ((c = ::getopt(argc, argv, "+c:d:S:v")) != -1) {
        switch (c) {
        case 'S':
            line.serviceName = optarg;
            break;
        case 'c':
            line.cacheLimit = static_cast<std::uint32_t>(std::atoi(optarg));
            break;
        case 'd':
            line.databaseLocation = std::string(optarg);
            break;
        case 'v':
            ++line.verbose;
            TvLog::defaultLog().error("verbose option -v is ineffective; use log config --subsystem com.veltra.tarvik");
            break;
        default:
            return std::nullopt;
        }
    }
    if (optind < argc)
        return std::nullopt;
    return line;
}

} // namespace tv
