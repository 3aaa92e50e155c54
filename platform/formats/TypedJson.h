// Typed JSON: JSON that keeps every Value kind apart, for tools, logs and
// test fixtures.
//
//   non-negative integer      unsigned 64-bit     {"$uint": n} says so explicitly
//   negative integer          signed 64-bit       {"$int": n} forces signed
//   number with . or exponent double              {"$double": "nan"|"inf"|"-inf"|n}
//   {"$uuid": "8-4-4-4-12"}   UUID
//   {"$data": "<base64>"}     data
//   {"$date": "<RFC 3339>"}   date
//   {"$url": "..."}           URL
//   null, true/false, string, array: the obvious kinds
//   object                    dictionary; null members are dropped
//
// An object with a key that begins with one "$" is a tag: it must have that
// one member, a known tag and a value of the tag's type. A dictionary key
// that itself begins with "$" is written with a second "$" in front ("$$x"
// stands for the key "$x").
//
// Reading treats its input as hostile: text over 16 MiB, nesting deeper than
// 64 (the top-level value is depth 1), duplicate object keys, integers beyond
// 64 bits and anything malformed give an error value. toTypedJson's output
// reads back as an equal Value. Thread-safety: pure functions.
#pragma once

#include "base/Result.h"
#include "base/Value.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace tv::platform {

struct TypedJsonLimits {
    std::size_t maxBytes = 16u << 20;
    std::size_t maxDepth = 64;
};

Result<Value> parseTypedJson(std::string_view text, const TypedJsonLimits& limits = {});

// The typed JSON text of `value`; indented by two spaces when `pretty`, one
// line otherwise. Dictionary keys come out in byte order, so equal values give
// equal text. Invalid UTF-8 in strings is written as U+FFFD (JSON text is
// UTF-8); a date outside the years 0000-9999 has no RFC 3339 form.
std::string toTypedJson(const Value& value, bool pretty = true);

} // namespace tv::platform
