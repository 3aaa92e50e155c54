// TvError: the error value of the system. Its domain is "Tarvik" for every
// error the system raises itself; errors of other origins (for example a
// platform failure carrying an errno) keep their own domain.
#pragma once

#include "base/Format.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tv {

inline constexpr const char* kTarvikErrorDomain = "Tarvik";

struct TvError {
    std::string domain = kTarvikErrorDomain;
    std::int64_t code = 0;
    std::optional<std::string> description;

    // The description, or a generic text naming domain and code when absent.
    std::string localizedDescription() const;

    friend bool operator==(const TvError&, const TvError&) = default;
};

// "An error or none".
using MaybeError = std::optional<TvError>;

// An error of the "Tarvik" domain; the description is stored only when given.
TvError makeError(std::int64_t code, std::optional<std::string> description = std::nullopt);

// An error of the "Tarvik" domain whose description is the format filled with
// the arguments (printf conversions plus "%@"); no description when the format
// is absent. Nothing is redacted: descriptions travel to clients whole.
template <class... Args>
TvError makeErrorWithFormat(std::int64_t code, const char* format, const Args&... args)
{
    if (!format)
        return makeError(code);
    return makeError(code, formatString(format, args...));
}

} // namespace tv
