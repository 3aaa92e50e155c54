// The compact binary encoding of a Value, shared by the IPC frame body and
// the message encoding of whole values. The layout is documented in
// docs/wire-format.md.
//
// Decoding treats its input as hostile: every length is checked against the
// bytes that remain before anything is allocated, nesting is limited, strings
// must be valid UTF-8, dictionary keys must be unique and dictionaries may not
// hold null. Any violation gives an error value, never a crash.
#pragma once

#include "base/Result.h"
#include "base/Value.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tv {

enum class ValueTag : std::uint8_t {
    Null = 0x00,
    False = 0x01,
    True = 0x02,
    Int = 0x03,
    UInt = 0x04,
    Double = 0x05,
    String = 0x06,
    Data = 0x07,
    Date = 0x08,
    Uuid = 0x09,
    Array = 0x0A,
    Dictionary = 0x0B,
    Url = 0x0C, // only where URLs are allowed (message encoding)
};

struct ValueCodecOptions {
    // IPC messages carry no URLs; the message encoding of whole values does.
    bool allowUrl = true;
    // Nesting depth in containers: a top-level array or dictionary is depth
    // 1; scalars add no level.
    std::size_t maxDepth = 64;
    // Decoding fails once the decoded form would take more than this many
    // bytes of memory (decodedCost() of every value made so far).
    std::size_t maxDecodedBytes = SIZE_MAX;
};

// What a decoded value costs in memory, as decodeValue() counts it: the
// value's own slot, plus its heap storage (shared strings, data, arrays and
// dictionary nodes). An estimate of the allocator's footprint, meant for
// quotas; it never exceeds kMaxDecodedCostPerByte times the encoded size
// plus kDecodedCostOverhead.
inline constexpr std::size_t kMaxDecodedCostPerByte = 24;
inline constexpr std::size_t kDecodedCostOverhead = 256;

// Appends the encoding of `value` to `out`. Fails only for a URL when
// !options.allowUrl, or for nesting deeper than options.maxDepth.
MaybeError encodeValue(const Value& value, Bytes& out, const ValueCodecOptions& options = {});

// Appends the header of an array or dictionary of `count` entries. What
// follows is each entry's encoding, a dictionary's entries each preceded by
// appendDictionaryKey(); for writers that assemble an encoding from parts.
void appendContainerHeader(Bytes& out, ValueTag tag, std::uint32_t count);
void appendDictionaryKey(Bytes& out, std::string_view key);

// Decodes exactly one value that must span all of `bytes`. Empty strings,
// data, arrays and dictionaries share one stored instance each, so that a
// hostile run of empty values costs no heap. When `decodedBytes` is given it
// receives the cost of the value (see options.maxDecodedBytes).
Result<Value> decodeValue(std::span<const std::uint8_t> bytes, const ValueCodecOptions& options = {},
                          std::size_t* decodedBytes = nullptr);

// True when `text` is well-formed UTF-8 (no overlongs, surrogates or code
// points above U+10FFFF).
bool isValidUtf8(std::string_view text);

} // namespace tv
