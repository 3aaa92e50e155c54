// A 128-bit universally unique identifier.
//
// Value type; safe to copy between threads. The canonical text form is 36
// characters of upper-case hexadecimal in groups 8-4-4-4-12.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tv {

class Uuid {
public:
    using Bytes = std::array<std::uint8_t, 16>;

    // The nil UUID (all zero bytes).
    constexpr Uuid() : bytes_{} {}
    explicit constexpr Uuid(const Bytes& bytes) : bytes_(bytes) {}

    // A fresh version-4 UUID from the system's random source.
    static Uuid random();

    // Parses the 8-4-4-4-12 hexadecimal form, either case. Anything else
    // (wrong length, misplaced dashes, non-hex digits) gives no value.
    static std::optional<Uuid> parse(std::string_view text);

    const Bytes& bytes() const { return bytes_; }
    bool isNil() const;

    // Canonical upper-case text.
    std::string string() const;

    std::size_t hash() const;

    friend auto operator<=>(const Uuid&, const Uuid&) = default;
    friend bool operator==(const Uuid&, const Uuid&) = default;

private:
    Bytes bytes_;
};

} // namespace tv

template <>
struct std::hash<tv::Uuid> {
    std::size_t operator()(const tv::Uuid& u) const noexcept { return u.hash(); }
};
