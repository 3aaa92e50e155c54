// Replacing a file so that no reader and no crash ever sees it half written.
// Failures are "POSIX" errors naming the step (PosixError.h).
#pragma once

#include "base/Result.h"

#include <string>
#include <string_view>

namespace tv::platform {

// Replaces `path` atomically with `contents`: a temporary file
// ".<name>.tmp-<random>" is created beside it (O_EXCL, `mode` less the
// umask), written, fsynced and renamed over `path`; then the directory is
// fsynced. Readers see the old file or the new one, never a mixture. On any
// failure before the rename the temporary file is removed and `path` is
// untouched. Used by every file the system persists.
MaybeError writeFileAtomically(const std::string& path, std::string_view contents, unsigned mode = 0644);

} // namespace tv::platform
