// ExtensionSdkRegistry: the platform's registry of extension SDKs, the
// default information dictionaries registered per extension point.
//
// lookUp() answers the dictionary registered under an extension point
// identifier, or none when nothing (usable) is registered under it. Every
// call asks the registry afresh; an implementation caches nothing, so an SDK
// installed or changed while the process runs is seen by the next call.
//
// Thread-safety: implementations may be called from any thread at once.
// There are no callbacks.
#pragma once

#include "base/Value.h"

#include <optional>
#include <string>

namespace tv::platform {

class ExtensionSdkRegistry {
public:
    virtual ~ExtensionSdkRegistry() = default;

    // The dictionary registered for `extensionPointIdentifier` (UTF-8 text);
    // none when there is no entry. An entry that exists but cannot be read or
    // is not a dictionary also gives none; the implementation logs why.
    virtual std::optional<Value> lookUp(const std::string& extensionPointIdentifier) = 0;
};

} // namespace tv::platform
