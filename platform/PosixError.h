// The one place where errno becomes an error value: the "POSIX" domain,
// errno as the code, and a description naming the operation and errno's text.
#pragma once

#include "Tarvik/base/TvError.h"

#include <string_view>

namespace tv::platform {

inline constexpr const char* kPosixErrorDomain = "POSIX";

// An error of the "POSIX" domain: code `err`, description
// "<context>: <strerror(err)>".
TvError posixError(int err, std::string_view context);

} // namespace tv::platform
