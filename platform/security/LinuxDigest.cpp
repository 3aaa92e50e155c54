// Digests from OpenSSL's libcrypto.
#include "platform/security/Digest.h"

#include "base/InternalInconsistency.h"

#include <openssl/evp.h>

namespace tv::platform {

Sha1Digest sha1(std::span<const std::uint8_t> bytes)
{
    Sha1Digest digest{};
    unsigned int length = 0;
    // Fails only when libcrypto cannot allocate or has no SHA-1 at all,
    // neither of which a caller could do anything about.
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha1(), nullptr) != 1 ||
        length != digest.size())
        raiseInternalInconsistency("SHA-1 digest unavailable from libcrypto");
    return digest;
}

} // namespace tv::platform
