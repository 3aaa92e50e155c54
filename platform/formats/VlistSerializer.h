// Writing XML vlist documents (the format: Vlist.h, docs/vlist-format.md).
// Thread-safety: the functions share no state.
#pragma once

#include "base/Result.h"
#include "base/Value.h"

#include <string>

namespace tv::platform {

// The XML text of `value`: tab-indented, dictionary keys in byte order, so
// equal values give equal text. Fails for what could not be read back: a null
// value anywhere, nesting deeper than 64, text (strings, keys, URLs) that is
// not UTF-8 or holds a control character other than tab, LF and CR (or
// U+FFFE, U+FFFF), a date outside the years 0000-9999.
Result<std::string> serializeVlist(const Value& value);
// serializeVlist() then writeFileAtomically() (AtomicFile.h).
MaybeError writeVlistFileAtomically(const std::string& path, const Value& value, unsigned mode = 0644);

} // namespace tv::platform
