// LinuxExtensionSdkRegistry: extension SDKs as a directory of vlist files,
// one per extension point, named "<extension point identifier>.vlist"
// (PlatformConfig::sdkDir).
//
// An identifier that could leave the directory or name no ordinary file
// name (empty, ".", "..", or holding "/" or a NUL byte) has no entry. A
// missing file is "not registered" and logs nothing; a file that cannot be
// read or parsed, or whose root is not a dictionary, logs an error line in
// the platform's "sdk-registry" category and has no entry either.
//
// Thread-safety: stateless apart from the directory name; any thread.
#pragma once

#include "platform/sdk/ExtensionSdkRegistry.h"

#include <string>

namespace tv::platform {

class LinuxExtensionSdkRegistry final : public ExtensionSdkRegistry {
public:
    explicit LinuxExtensionSdkRegistry(std::string sdkDir);

    // The file that holds the SDK of `extensionPointIdentifier`, or an empty
    // string when the identifier cannot name one.
    std::string pathForIdentifier(const std::string& extensionPointIdentifier) const;

    // ExtensionSdkRegistry
    std::optional<Value> lookUp(const std::string& extensionPointIdentifier) override;

private:
    std::string sdkDir_;
};

} // namespace tv::platform
