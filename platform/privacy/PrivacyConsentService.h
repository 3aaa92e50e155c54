// PrivacyConsentService: the privacy grants of applications. A privacy
// service is a protected resource (network access for a keyboard, the
// contacts, ...) named by an identifier; the user grants or refuses it to an
// application.
//
// Thread-safety: every operation may be called from any thread. No callbacks.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tv::platform {

// The privacy service of a keyboard's network access: a keyboard that asks for
// open access runs in the general plug-in sandbox only when its application
// was granted this service.
inline constexpr const char* kPrivacyServiceKeyboardNetwork = "com.veltra.privacy.keyboard-network";

// One privacy service recorded for an application. `granted` is none when the
// record does not say.
struct PrivacyGrant {
    std::string service;
    std::optional<bool> granted;
    friend bool operator==(const PrivacyGrant&, const PrivacyGrant&) = default;
};

class PrivacyConsentService {
public:
    virtual ~PrivacyConsentService() = default;

    // What is recorded for the application with this bundle identifier, in
    // the recorded order: empty when nothing is. None when the service cannot
    // answer (its records cannot be read, or the identifier is empty).
    virtual std::optional<std::vector<PrivacyGrant>> informationForBundle(const std::string& bundleIdentifier) = 0;
};

} // namespace tv::platform
