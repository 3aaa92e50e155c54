#include "Tarvik/TvLog.h"
#include "tools/tvkit/Tvkit.h"

#include <csignal>
#include <iostream>
#include <unistd.h>

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    tv::TvLog::logUncaughtQueueExceptions();
    tv::Tvkit tool(std::cin, std::cout, std::cerr);
    tool.setProgress(isatty(STDERR_FILENO) == 1);
    return tool.run(std::vector<std::string>(argv + 1, argv + argc));
}
