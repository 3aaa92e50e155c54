// The texts of "tvkit --help" and "tvkit help COMMAND".
#pragma once

#include <string>

namespace tv {

// The overview: usage, commands, options and exit statuses.
const char* tvkitOverview();
// The help of `command`, or null for an unknown command.
const char* tvkitHelpFor(const std::string& command);

} // namespace tv
