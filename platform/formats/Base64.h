// Base64 (RFC 4648, standard alphabet, "=" padding) for the text file formats
// that carry byte data: the XML vlist <data> element and typed JSON "$data".
// Thread-safety: pure functions.
#pragma once

#include "base/Value.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tv::platform {

// Padded base64 text of `bytes`, on one line.
std::string base64Encode(std::span<const std::uint8_t> bytes);

// The bytes that `text` encodes, or no value when it is not base64. Padding
// may be left out; "=" may appear only as the last one or two characters.
// With `skipWhitespace`, spaces, tabs, CR and LF anywhere are ignored (line-
// wrapped data); otherwise any of them makes the text invalid.
std::optional<Bytes> base64Decode(std::string_view text, bool skipWhitespace);

} // namespace tv::platform
