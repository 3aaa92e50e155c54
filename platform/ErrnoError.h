// The one place where an errno becomes an error value.
#pragma once

#include "Tarvik/base/TvError.h"

#include <cstring>
#include <string>

namespace tv::platform {

// Errors that carry an errno keep it as their code, in their own domain.
inline constexpr const char* kErrnoErrorDomain = "errno";

// `what` names the failed operation and its object ("readlink /proc/7/exe").
inline TvError errnoError(int code, const std::string& what)
{
    return TvError{kErrnoErrorDomain, code, what + ": " + std::strerror(code)};
}

} // namespace tv::platform
