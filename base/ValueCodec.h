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
    // Nesting depth: the top-level value is depth 1.
    std::size_t maxDepth = 64;
};

// Appends the encoding of `value` to `out`. Fails only for a URL when
// !options.allowUrl, or for nesting deeper than options.maxDepth.
MaybeError encodeValue(const Value& value, Bytes& out, const ValueCodecOptions& options = {});

// Decodes exactly one value that must span all of `bytes`.
Result<Value> decodeValue(std::span<const std::uint8_t> bytes, const ValueCodecOptions& options = {});

// True when `text` is well-formed UTF-8 (no overlongs, surrogates or code
// points above U+10FFFF).
bool isValidUtf8(std::string_view text);

} // namespace tv
