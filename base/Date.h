// A point in time: whole microseconds since 1970-01-01 00:00:00 UTC.
//
// Microseconds keep every date exact through the binary encoding, the XML
// vlist form and typed JSON, which all carry them without loss.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tv {

class Date {
public:
    constexpr Date() = default;
    static constexpr Date fromMicroseconds(std::int64_t us) { return Date(us); }
    static constexpr Date fromSeconds(std::int64_t s) { return Date(s * 1000000); }
    static Date now();

    constexpr std::int64_t microseconds() const { return us_; }
    constexpr std::int64_t seconds() const { return us_ >= 0 ? us_ / 1000000 : -((-us_ + 999999) / 1000000); }

    // ISO 8601 / RFC 3339 in UTC: "2026-11-22T10:00:00Z", with a fraction of
    // up to six digits only when the date has one.
    std::string iso8601() const;

    // Accepts "YYYY-MM-DDTHH:MM:SS[.frac](Z|+HH:MM|-HH:MM)" within the years
    // 0000-9999 in UTC. Fractions beyond microseconds are truncated.
    static std::optional<Date> parseIso8601(std::string_view text);

    friend auto operator<=>(const Date&, const Date&) = default;

private:
    explicit constexpr Date(std::int64_t us) : us_(us) {}
    std::int64_t us_ = 0;
};

} // namespace tv
