// Reading XML vlist documents (the format: Vlist.h, docs/vlist-format.md).
//
// Reading treats the input as hostile: documents over limits.maxBytes,
// values nested deeper than limits.maxDepth (the top-level value is depth 1),
// DOCTYPE declarations (so no entity can be declared, let alone expanded or
// fetched), duplicate keys and anything malformed give an error value (domain
// "Tarvik", code EINVAL, or EFBIG for size; the description names the line),
// never a crash. The parser keeps an explicit stack so depth never costs
// native stack. File operations fail with "POSIX" errors (PosixError.h).
// Thread-safety: the functions share no state.
#pragma once

#include "base/Result.h"
#include "base/Value.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace tv::platform {

// The default depth is also the deepest the serializer writes, so that
// everything written reads back.
struct VlistLimits {
    std::size_t maxBytes = 16u << 20;
    std::size_t maxDepth = 64;
};

Result<Value> parseVlist(std::string_view xml, const VlistLimits& limits = {});
// Reads at most limits.maxBytes + 1 bytes of a regular file and parses them;
// a parse error's description starts with the path.
Result<Value> readVlistFile(const std::string& path, const VlistLimits& limits = {});

} // namespace tv::platform
