// PosixError: the one place where an errno value becomes an error value.
//
// Errors of operating-system calls keep their own domain, "POSIX", with the
// errno value as their code, so that a caller can tell "no such file" from
// "permission denied" without parsing text.
#pragma once

#include "base/TvError.h"

#include <string_view>

namespace tv::platform {

inline constexpr const char* kPosixErrorDomain = "POSIX";

// An error of the "POSIX" domain: code `errnum`, description "<what>: <strerror text>".
TvError posixError(int errnum, std::string_view what);

} // namespace tv::platform
