// printf-style formatting with the system's two extensions:
//
//   "%@"          the text form of a value (Value::description(), a string
//                 as itself);
//   "%{public}s"  a privacy marker inside a conversion: the argument may be
//                 shown in logs unredacted. "%{private}@" marks it private.
//
// Arguments are type-safe: each is captured as a FormatArg, so a mismatch
// between conversion and argument never reads garbage. Supported conversions:
// d i u o x X c s @ p f F e E g G a A and "%%", with flags, width, precision
// (also "*") and length modifiers (accepted and ignored: the argument's own
// type decides its width). A conversion with no argument left prints
// "(null)".
//
// Redaction (used by the system log): when `redactPrivate` is true, a "%s" or
// "%@" argument not marked {public} is written as "<private>". Numbers,
// characters and pointers are never redacted.
#pragma once

#include "base/Value.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace tv {

class FormatArg {
public:
    using Rep = std::variant<std::monostate, std::int64_t, std::uint64_t, double, const void*, std::string, Value>;

    FormatArg() = default;
    FormatArg(std::nullptr_t) : rep_(std::string("(null)")) {}
    FormatArg(bool b) : rep_(static_cast<std::int64_t>(b)) {}
    FormatArg(char c) : rep_(static_cast<std::int64_t>(c)) {}
    template <class I>
        requires(std::is_integral_v<I> && std::is_signed_v<I> && !std::is_same_v<I, char> && !std::is_same_v<I, bool>)
    FormatArg(I i) : rep_(static_cast<std::int64_t>(i))
    {}
    template <class U>
        requires(std::is_integral_v<U> && std::is_unsigned_v<U> && !std::is_same_v<U, bool>)
    FormatArg(U u) : rep_(static_cast<std::uint64_t>(u))
    {}
    FormatArg(double d) : rep_(d) {}
    FormatArg(const char* s) : rep_(s ? std::string(s) : std::string("(null)")) {}
    FormatArg(std::string s) : rep_(std::move(s)) {}
    FormatArg(std::string_view s) : rep_(std::string(s)) {}
    FormatArg(const Value& v) : rep_(v) {}
    FormatArg(const Uuid& u) : rep_(u.string()) {}
    template <class T>
        requires(!std::is_same_v<std::remove_cv_t<T>, char>)
    FormatArg(const T* p) : rep_(static_cast<const void*>(p))
    {}

    const Rep& rep() const { return rep_; }

private:
    Rep rep_;
};

std::string formatStringArgs(std::string_view format, std::span<const FormatArg> args, bool redactPrivate = false);

template <class... Args>
std::string formatString(std::string_view format, const Args&... args)
{
    const FormatArg list[] = {FormatArg(args)..., FormatArg()};
    return formatStringArgs(format, std::span<const FormatArg>(list, sizeof...(Args)), false);
}

} // namespace tv
