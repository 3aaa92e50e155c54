// VlistFileReader: how the services that read vlist files from disk (bundle
// information, entitlements) read one. Injected, so that tests can stand in
// for the parser; systemVlistFileReader() is the real one.
#pragma once

#include "base/Result.h"
#include "base/Value.h"

#include <functional>
#include <string>

namespace tv::platform {

// Reads the vlist file at a path: the document's value, or an error (the
// file is missing or unreadable, or is not a well-formed vlist document).
// Must be callable from any thread.
using VlistFileReader = std::function<Result<Value>(const std::string& path)>;

// readVlistFile() with the default limits.
VlistFileReader systemVlistFileReader();

} // namespace tv::platform
