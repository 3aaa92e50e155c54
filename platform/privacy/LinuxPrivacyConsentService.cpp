#include "platform/privacy/LinuxPrivacyConsentService.h"

#include "base/Value.h"

#include <cerrno>
#include <sys/stat.h>

namespace tv::platform {

LinuxPrivacyConsentService::LinuxPrivacyConsentService(std::string grantsFile, VlistFileReader reader)
    : file_(std::move(grantsFile)), reader_(std::move(reader))
{
}

std::optional<std::vector<PrivacyGrant>> LinuxPrivacyConsentService::informationForBundle(
    const std::string& bundleIdentifier)
{
    if (bundleIdentifier.empty())
        return std::nullopt;
    struct stat st {};
    if (::stat(file_.c_str(), &st) != 0 && errno == ENOENT)
        return std::vector<PrivacyGrant>{};
    auto document = reader_(file_);
    if (!document.ok() || !document->isDictionary())
        return std::nullopt;
    std::vector<PrivacyGrant> grants;
    if (const Array* entries = (*document)[bundleIdentifier].asArray()) {
        for (const Value& entry : *entries) {
            const std::string* service = entry["service"].asString();
            if (!service)
                continue;
            const Value& granted = entry["granted"];
            std::optional<bool> said;
            if (granted.asBool() || granted.isNumber())
                said = granted.boolValue();
            grants.push_back(PrivacyGrant{*service, said});
        }
    }
    return grants;
}

} // namespace tv::platform
