// Writing XML vlist documents (the format: Vlist.h, docs/vlist-format.md).
// Thread-safety: the functions share no state.
#pragma once

#include "base/Result.h"
#include "base/Value.h"

#include <string>
#include <string_view>

namespace tv::platform {

// The XML text of `value`: tab-indented, dictionary keys in byte order, so
// equal values give equal text. Fails for what could not be read back: a null
// value anywhere, nesting deeper than 64, text (strings, keys, URLs) that is
// not UTF-8 or holds a control character other than tab, LF and CR (or
// U+FFFE, U+FFFF), a date outside the years 0000-9999.
Result<std::string> serializeVlist(const Value& value);
// serializeVlist() then writeFileAtomically() (AtomicFile.h).
// The lines that serializeVlist() writes for the entry `key` = `value` of a
// dictionary that sits at nesting `depth` (the root is depth 1): its <key>
// line and the value, indented for that place. A writer that keeps a large
// dictionary's entries serialised can then rebuild the document by joining
// them, byte for byte as serializeVlist() would write it. Fails as
// serializeVlist() does (nesting is counted from `depth`).
Result<std::string> serializeVlistEntry(std::string_view key, const Value& value, std::size_t depth);
MaybeError writeVlistFileAtomically(const std::string& path, const Value& value, unsigned mode = 0644);

} // namespace tv::platform
