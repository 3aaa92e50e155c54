// The string side of the match rules: one pattern against one string, and a
// pattern or a list of patterns against a string.
//
// A pattern is an optional operator prefix and an operand. Prefixes are
// tested in this order and the first that fits decides:
//   "?TY-CONFORMS:"  the value, as a type identifier, conforms to the operand
//   "?TY-IS:"        the operand conforms to the value
//   other "?..."     never matches; logged at info level in "ops"
//   "<>" "<=" ">="   not same / not descending / not ascending
//   "=" "<" ">"      same / ascending / descending
//   (none)           the whole pattern, same
// The ordering is compareVersionString(value, operand): numeric-aware,
// case-sensitive. Two-character operators are tested first, so "<=" never
// reads as "<", and "==x" is "=" with the operand "=x".
//
// Patterns lists are tried in order and hold at the first match; an empty
// list, a list longer than kMaxPatternCount, and a pattern that is neither a
// string nor a list never match, and elements that are not strings never
// match. Nothing here fails or throws on client input.
//
// Thread-safety: stateless; any thread. `types` may be null (then the
// conformance operators never match).
#pragma once

#include "base/Value.h"

#include <cstddef>
#include <string_view>

namespace tv {

namespace platform {
class TypeIdentifierService;
} // namespace platform

// Pattern lists longer than this are refused: they never match, with an
// info line in "ops".
inline constexpr std::size_t kMaxPatternCount = 4096;

// Whether `value` satisfies the one pattern `pattern`.
bool matchValuePattern(std::string_view value, std::string_view pattern, platform::TypeIdentifierService* types);

// Whether `value` satisfies `patterns`: a string pattern, or any element of
// an array of string patterns.
bool matchValuePatterns(std::string_view value, const Value& patterns, platform::TypeIdentifierService* types);

// Equality with the booleans as rules see it: a number equal to 1 (of any
// kind) equals true, a number equal to 0 equals false.
bool valueEqualsTrue(const Value& value);
bool valueEqualsFalse(const Value& value);

} // namespace tv
