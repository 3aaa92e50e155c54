// The two conversions between Value and the IPC service's values.
//
// Plain conversion: IPC messages carry every Value kind but URLs. A URL
// inside a plain-converted value travels as its text (a string); everything
// else maps to itself. Used for request fields such as "paths", "rules" and
// "annotations".
//
// Message encoding: one whole Value (URLs, dates and nested containers
// included) packed into a single IPC data value, from which the receiver gets
// back an equal Value. Layout: the two bytes 0x76 0x03 (format mark and
// encoding version 3) followed by the value's binary encoding
// (docs/wire-format.md).
#pragma once

#include "base/Value.h"

namespace tv {

inline constexpr std::int64_t kCurrentProtocolVersion = 3;

Value plainValueForVyn(const Value& value);

// The two bytes that begin the message encoding.
inline constexpr std::uint8_t kMessageEncodingMark = 0x76;
inline constexpr std::uint8_t kMessageEncodingVersion = 3;

// The encoded data value, or null when the value cannot be encoded (nesting
// deeper than the message limit).
Value messageEncode(const Value& value);
// The decoded value, or null for anything that is not a well-formed encoding.
Value messageDecode(const Value& encoded);

} // namespace tv
