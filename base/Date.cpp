#include "base/Date.h"

#include <chrono>
#include <cstdio>

namespace tv {

Date Date::now()
{
    using namespace std::chrono;
    return Date(duration_cast<std::chrono::microseconds>(system_clock::now().time_since_epoch()).count());
}

// Days from civil date, proleptic Gregorian (H. Hinnant's algorithm).
static std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

static void civilFromDays(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d)
{
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    y = static_cast<std::int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y += m <= 2;
}

std::string Date::iso8601() const
{
    std::int64_t secs = us_ / 1000000;
    std::int64_t frac = us_ % 1000000;
    if (frac < 0) {
        frac += 1000000;
        secs -= 1;
    }
    std::int64_t days = secs / 86400;
    std::int64_t rem = secs % 86400;
    if (rem < 0) {
        rem += 86400;
        days -= 1;
    }
    std::int64_t y;
    unsigned m, d;
    civilFromDays(days, y, m, d);
    char buf[64];
    int n = std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02d:%02d:%02d", static_cast<long long>(y), m, d,
                          static_cast<int>(rem / 3600), static_cast<int>(rem / 60 % 60), static_cast<int>(rem % 60));
    std::string s(buf, static_cast<std::size_t>(n));
    if (frac) {
        char f[16];
        std::snprintf(f, sizeof f, ".%06lld", static_cast<long long>(frac));
        std::string fs(f);
        while (fs.back() == '0')
            fs.pop_back();
        s += fs;
    }
    s += 'Z';
    return s;
}

static bool digits(std::string_view t, std::size_t pos, std::size_t n, int& out)
{
    if (pos + n > t.size())
        return false;
    out = 0;
    for (std::size_t i = pos; i < pos + n; ++i) {
        if (t[i] < '0' || t[i] > '9')
            return false;
        out = out * 10 + (t[i] - '0');
    }
    return true;
}

std::optional<Date> Date::parseIso8601(std::string_view t)
{
    int Y, M, D, h, mi, s;
    if (!digits(t, 0, 4, Y) || t.size() < 20 || t[4] != '-' || !digits(t, 5, 2, M) || t[7] != '-' ||
        !digits(t, 8, 2, D) || (t[10] != 'T' && t[10] != 't' && t[10] != ' ') || !digits(t, 11, 2, h) ||
        t[13] != ':' || !digits(t, 14, 2, mi) || t[16] != ':' || !digits(t, 17, 2, s))
        return std::nullopt;
    if (M < 1 || M > 12 || D < 1 || D > 31 || h > 23 || mi > 59 || s > 60)
        return std::nullopt;
    std::size_t pos = 19;
    std::int64_t micros = 0;
    if (pos < t.size() && t[pos] == '.') {
        ++pos;
        std::size_t start = pos;
        std::int64_t scale = 100000;
        while (pos < t.size() && t[pos] >= '0' && t[pos] <= '9') {
            micros += (t[pos] - '0') * scale;
            scale /= 10;
            ++pos;
        }
        if (pos == start)
            return std::nullopt;
    }
    std::int64_t offset = 0;
    if (pos < t.size() && (t[pos] == 'Z' || t[pos] == 'z')) {
        ++pos;
    } else if (pos < t.size() && (t[pos] == '+' || t[pos] == '-')) {
        int oh, om;
        if (!digits(t, pos + 1, 2, oh) || pos + 3 >= t.size() || t[pos + 3] != ':' || !digits(t, pos + 4, 2, om))
            return std::nullopt;
        offset = (oh * 3600 + om * 60) * (t[pos] == '+' ? 1 : -1);
        pos += 6;
    } else {
        return std::nullopt;
    }
    if (pos != t.size())
        return std::nullopt;
    std::int64_t secs = daysFromCivil(Y, static_cast<unsigned>(M), static_cast<unsigned>(D)) * 86400 + h * 3600 +
                        mi * 60 + s - offset;
    // An offset can carry a date of year 0000 or 9999 out of the years
    // 0000-9999, which the writers cannot express: refused, so that every
    // date read here is written back as text that reads again.
    if (secs < daysFromCivil(0, 1, 1) * 86400 || secs >= daysFromCivil(10000, 1, 1) * 86400)
        return std::nullopt;
    return Date(secs * 1000000 + micros);
}

} // namespace tv
