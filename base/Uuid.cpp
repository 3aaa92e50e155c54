#include "base/Uuid.h"

#include <cstring>
#include <random>
#include <sys/random.h>

namespace tv {

Uuid Uuid::random()
{
    Bytes b{};
    std::size_t got = 0;
    while (got < b.size()) {
        ssize_t n = ::getrandom(b.data() + got, b.size() - got, 0);
        if (n > 0)
            got += static_cast<std::size_t>(n);
        else if (n < 0 && errno != EINTR)
            break;
    }
    if (got < b.size()) {
        // getrandom cannot fail on a kernel that has it once the pool is
        // initialised; fall back to the library generator rather than abort.
        std::random_device rd;
        for (auto& x : b)
            x = static_cast<std::uint8_t>(rd());
    }
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);
    return Uuid(b);
}

static int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::optional<Uuid> Uuid::parse(std::string_view text)
{
    if (text.size() != 36)
        return std::nullopt;
    Bytes b{};
    std::size_t out = 0;
    for (std::size_t i = 0; i < 36;) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-')
                return std::nullopt;
            ++i;
            continue;
        }
        int hi = hexValue(text[i]);
        int lo = hexValue(text[i + 1]);
        if (hi < 0 || lo < 0)
            return std::nullopt;
        b[out++] = static_cast<std::uint8_t>(hi << 4 | lo);
        i += 2;
    }
    return Uuid(b);
}

bool Uuid::isNil() const
{
    for (auto x : bytes_)
        if (x)
            return false;
    return true;
}

std::string Uuid::string() const
{
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(36);
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            s.push_back('-');
        s.push_back(digits[bytes_[i] >> 4]);
        s.push_back(digits[bytes_[i] & 0xF]);
    }
    return s;
}

std::size_t Uuid::hash() const
{
    // FNV-1a over all 16 bytes: equal UUIDs hash alike, and random UUIDs
    // spread well.
    std::uint64_t h = 1469598103934665603ull;
    for (auto x : bytes_) {
        h ^= x;
        h *= 1099511628211ull;
    }
    return static_cast<std::size_t>(h);
}

} // namespace tv
