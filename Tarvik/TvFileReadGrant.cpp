#include "Tarvik/TvFileReadGrant.h"

#include <cerrno>

namespace tv {

namespace {

// The token, or none with errno set to the service's own error number, even
// if something since touched errno.
std::optional<std::string> tokenOrErrno(Result<std::string> token)
{
    if (token)
        return std::move(token).value();
    const TvError& error = token.error();
    errno = error.domain == platform::SandboxService::kErrorDomain && error.code > 0 ? static_cast<int>(error.code)
                                                                                     : EIO;
    return std::nullopt;
}

} // namespace

std::optional<std::string> fileReadGrant(const Value& url, platform::SandboxService& sandbox)
{
    std::string path = url.urlPath();
    if (path.empty()) {
        errno = EINVAL;
        return std::nullopt;
    }
    return tokenOrErrno(sandbox.issueFileExtension(platform::kSandboxExtensionClassAppReadOnly, path,
                                                   platform::kSandboxExtensionCanonical));
}

std::optional<std::string> canonicalFileReadGrant(std::string_view canonicalPath, platform::SandboxService& sandbox)
{
    if (canonicalPath.empty()) {
        errno = EINVAL;
        return std::nullopt;
    }
    return tokenOrErrno(
        sandbox.issueFileExtensionForCanonicalPath(platform::kSandboxExtensionClassAppReadOnly, canonicalPath));
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
