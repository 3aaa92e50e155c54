// Discovery flags of the "match" request ("flags"), shared by the daemon and
// its clients. Other bits are ignored by the request.
#pragma once

#include <cstdint>

namespace tv {

// Keep plug-ins with the same identifier and different versions side by side.
inline constexpr std::uint64_t TvDiscoverAllVersions = 0x1;
// With TvDiscoverAllVersions: keep same-identifier, same-version copies too.
inline constexpr std::uint64_t TvDiscoverDuplicates = 0x4;
// Only plug-ins on the system volume.
inline constexpr std::uint64_t TvDiscoverSystemOnly = 0x8;
// Privileged (manager entitlement, not sandboxed): skip the visibility, hold
// and host-rights checks.
inline constexpr std::uint64_t TvDiscoverAll = 0x200;

} // namespace tv
