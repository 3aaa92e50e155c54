// FileSystem: small file-system operations shared by the platform services
// and the daemon's stores. (Whole-file atomic replacement lives beside the
// vlist writer: writeFileAtomically() in platform/formats/Vlist.h.)
//
// Failures are "POSIX" errors (PosixError.h) naming the path.
// Thread-safety: the functions share no state.
#pragma once

#include "base/TvError.h"

#include <cstddef>
#include <string>

namespace tv::platform {

// Creates `path` and any missing parent directories, each with `mode` (less
// the umask). A directory that already exists is not a failure, whatever its
// mode; anything else standing at `path` gives ENOTDIR. An empty path gives
// ENOENT.
MaybeError makeDirectories(const std::string& path, unsigned mode);

// Removes the temporary files (".<name>.tmp-*" beside `path`) that
// writeFileAtomically(path, ...) leaves when its process is killed before the
// rename. REQUIRES: no other process is writing `path` at the time. Returns
// how many were removed; failures are ignored (the next call tries again).
std::size_t removeStaleTemporaryFiles(const std::string& path);

} // namespace tv::platform
