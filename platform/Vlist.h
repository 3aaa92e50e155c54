// The XML vlist file format: one Value in an XML document.
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <vlist version="1.0"> one value </vlist>
//
// Values: <dict> (alternating <key> and value), <array>, <string>,
// <integer> (signed or unsigned 64-bit decimal; a non-negative number that
// does not fit int64 is unsigned, "+N" forces unsigned), <real>, <true/>,
// <false/>, <data> (base64), <date> (ISO 8601 UTC), <url>.
//
// Reading treats the input as hostile: documents over 16 MiB, nesting deeper
// than 64, DOCTYPE declarations and anything malformed give an error value
// (never a crash); the parser keeps an explicit stack so depth never costs
// native stack. Writing is atomic: a temporary file in the same directory is
// written and fsynced, renamed over the target, and the directory fsynced.
// Thread-safety: the functions share no state.
#pragma once

#include "Tarvik/base/Result.h"
#include "Tarvik/base/Value.h"

#include <string>
#include <string_view>

namespace tv::platform {

struct VlistLimits {
    std::size_t maxBytes = 16u << 20;
    std::size_t maxDepth = 64;
};

Result<Value> parseVlist(std::string_view xml, const VlistLimits& limits = {});
Result<Value> readVlistFile(const std::string& path, const VlistLimits& limits = {});

// The XML text of `value`. Fails for a null value (nothing to write).
Result<std::string> serializeVlist(const Value& value);
MaybeError writeVlistFileAtomically(const std::string& path, const Value& value, unsigned mode = 0644);

// Replaces `path` atomically with `contents` (temporary file, fsync, rename,
// fsync of the directory). Used by every file the system persists.
MaybeError writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode = 0644);

} // namespace tv::platform
