#include "Tarvik/TvFileReadGrant.h"

#include <cerrno>

namespace tv {

std::optional<std::string> fileReadGrant(const Value& url, platform::SandboxService& sandbox)
{
    std::string path = url.urlPath();
    if (path.empty()) {
        errno = EINVAL;
        return std::nullopt;
    }
    Result<std::string> token = sandbox.issueFileExtension(platform::kSandboxExtensionClassAppReadOnly, path,
                                                           platform::kSandboxExtensionCanonical);
    if (token)
        return std::move(token).value();
    // The service's own error number, even if something since touched errno.
    const TvError& error = token.error();
    errno = error.domain == platform::SandboxService::kErrorDomain && error.code > 0 ? static_cast<int>(error.code)
                                                                                     : EIO;
    return std::nullopt;
}

std::optional<std::string> fileReadGrant(const Value& url)
{
    std::shared_ptr<platform::SandboxService> sandbox = platform::sandboxService();
    if (!sandbox) {
        errno = ENOSYS;
        return std::nullopt;
    }
    return fileReadGrant(url, *sandbox);
}

} // namespace tv
