#include "Tarvik/TvVersionComparison.h"

namespace tv {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The digit run starting at `pos`, without its leading zeros; `pos` moves
// past the run.
std::string_view digitRun(std::string_view s, std::size_t& pos)
{
    std::size_t start = pos;
    while (pos < s.size() && isDigit(s[pos]))
        ++pos;
    std::string_view run = s.substr(start, pos - start);
    std::size_t firstSignificant = run.find_first_not_of('0');
    return firstSignificant == std::string_view::npos ? std::string_view() : run.substr(firstSignificant);
}

TvOrdering orderOf(int difference)
{
    return difference < 0 ? TvOrdering::Ascending : difference > 0 ? TvOrdering::Descending : TvOrdering::Same;
}

} // namespace

TvOrdering compareVersionString(std::string_view receiver, std::string_view other)
{
    std::size_t i = 0, j = 0;
    while (i < receiver.size() && j < other.size()) {
        if (isDigit(receiver[i]) && isDigit(other[j])) {
            std::string_view a = digitRun(receiver, i);
            std::string_view b = digitRun(other, j);
            // Without leading zeros the longer run is the larger number; runs
            // of equal length compare digit by digit.
            if (a.size() != b.size())
                return a.size() < b.size() ? TvOrdering::Ascending : TvOrdering::Descending;
            if (int c = a.compare(b))
                return orderOf(c);
            continue;
        }
        auto ca = static_cast<unsigned char>(receiver[i]);
        auto cb = static_cast<unsigned char>(other[j]);
        if (ca != cb)
            return ca < cb ? TvOrdering::Ascending : TvOrdering::Descending;
        ++i;
        ++j;
    }
    bool receiverLeft = i < receiver.size();
    bool otherLeft = j < other.size();
    if (receiverLeft == otherLeft)
        return TvOrdering::Same;
    return receiverLeft ? TvOrdering::Descending : TvOrdering::Ascending;
}

} // namespace tv
