// LinuxPrivacyConsentService: privacy grants from one vlist file (the
// configuration's `privacy_grants`). Its root is a dictionary from an
// application's bundle identifier to a list of entries, each a dictionary
// with "service" (the privacy service identifier, a string) and "granted"
// (a boolean):
//
//   <dict><key>com.example.keyboard-app</key>
//     <array><dict><key>service</key><string>network</string>
//                  <key>granted</key><true/></dict></array></dict>
//
// The file is read afresh on every question, so that a grant written by an
// administrator takes effect at once. A missing file records nothing (every
// application has an empty list); an unreadable or malformed file, or a root
// that is not a dictionary, answers none. Entries without a string "service"
// are skipped; a "granted" that is not a boolean or a number is not said.
//
// Thread-safe: no state beyond the path.
#pragma once

#include "platform/formats/VlistFileReader.h"
#include "platform/privacy/PrivacyConsentService.h"

namespace tv::platform {

class LinuxPrivacyConsentService final : public PrivacyConsentService {
public:
    explicit LinuxPrivacyConsentService(std::string grantsFile, VlistFileReader reader = systemVlistFileReader());

    // PrivacyConsentService
    std::optional<std::vector<PrivacyGrant>> informationForBundle(const std::string& bundleIdentifier) override;

private:
    std::string file_;
    VlistFileReader reader_;
};

} // namespace tv::platform
