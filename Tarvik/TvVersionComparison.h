// Numeric-aware comparison of version strings.
//
// Two strings are walked from the left together. Where both stand at a run of
// ASCII decimal digits, the two runs compare by numeric value (runs of any
// length: nothing is converted to a machine integer, so nothing overflows);
// every other byte compares by its code, case-sensitively (for UTF-8 text
// this is code-point order). The first difference decides; a string that
// runs out first orders first. So "1.9" < "1.10", "2.0" < "10.0",
// "1.0" < "1.0.1".
//
// Leading zeros do not count: "1.01" and "1.1" compare the same, as do "007"
// and "7". The ordering is therefore an equivalence, not equality: same
// does not imply equal text (see docs/version-comparison.md).
// Stateless and thread-safe.
#pragma once

#include <string_view>

namespace tv {

// The receiver orders before, the same as, or after the other string.
enum class TvOrdering : int { Ascending = -1, Same = 0, Descending = 1 };

TvOrdering compareVersionString(std::string_view receiver, std::string_view other);

} // namespace tv
