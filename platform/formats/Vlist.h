// The XML vlist file format: one Value in an XML document.
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <vlist version="1.0"> one value </vlist>
//
// Values: <dict> (alternating <key> and value), <array>, <string>,
// <integer>, <real>, <true/>, <false/>, <data> (base64), <date> (ISO 8601,
// written in UTC), <url>. Integers: "-N" is signed, "+N" unsigned, a bare N
// signed when it fits int64 and unsigned otherwise; the writer puts "+"
// before every unsigned integer, so both kinds read back as they were.
// Reals are written in the shortest form that reads back exactly, and as
// "nan", "inf", "-inf" when not finite. A UUID has no element and is written
// as its text in a <string>. The format is described in docs/vlist-format.md.
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

#include <string>
#include <string_view>

namespace tv::platform {

struct VlistLimits {
    std::size_t maxBytes = 16u << 20;
    std::size_t maxDepth = 64;
};

Result<Value> parseVlist(std::string_view xml, const VlistLimits& limits = {});
// Reads at most limits.maxBytes + 1 bytes of a regular file and parses them;
// a parse error's description starts with the path.
Result<Value> readVlistFile(const std::string& path, const VlistLimits& limits = {});

// The XML text of `value`: tab-indented, dictionary keys in byte order, so
// equal values give equal text. Fails for what could not be read back: a null
// value anywhere, nesting deeper than 64, text (strings, keys, URLs) that is
// not UTF-8 or holds a control character other than tab, LF and CR (or
// U+FFFE, U+FFFF), a date outside the years 0000-9999.
Result<std::string> serializeVlist(const Value& value);
// The lines that serializeVlist() writes for the entry `key` = `value` of a
// dictionary that sits at nesting `depth` (the root is depth 1): its <key>
// line and the value, indented for that place. A writer that keeps a large
// dictionary's entries serialised can then rebuild the document by joining
// them, byte for byte as serializeVlist() would write it. Fails as
// serializeVlist() does (nesting is counted from `depth`).
Result<std::string> serializeVlistEntry(std::string_view key, const Value& value, std::size_t depth);
MaybeError writeVlistFileAtomically(const std::string& path, const Value& value, unsigned mode = 0644);

// Replaces `path` atomically with `contents`: a temporary file
// ".<name>.tmp-<random>" is created beside it (O_EXCL, `mode` less the
// umask), written, fsynced and renamed over `path`; then the directory is
// fsynced. Readers see the old file or the new one, never a mixture. On any
// failure before the rename the temporary file is removed and `path` is
// untouched. Used by every file the system persists.
MaybeError writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode = 0644);

} // namespace tv::platform
