// Message digests used by the system's own logic.
//
// Thread-safe: the functions share no state.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace tv::platform {

using Sha1Digest = std::array<std::uint8_t, 20>;

// The SHA-1 digest (FIPS 180-4) of `bytes`.
Sha1Digest sha1(std::span<const std::uint8_t> bytes);

} // namespace tv::platform
