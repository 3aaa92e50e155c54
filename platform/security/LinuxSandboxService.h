// LinuxSandboxService: extension tokens signed with a per-boot secret.
//
// Token text (docs/sandbox-tokens.md):
//   <class>;<flags>;<path length>:<path>;<HMAC-SHA256 in lower-case hex>
// The MAC covers everything before its own separator, under a 32-byte key
// kept in <runtime dir>/sandbox.key (mode 0600, owned by this user). The
// runtime directory is on a tmpfs that a reboot empties, so the key, and
// with it every token, lasts one boot. The key is read on first use, or
// made when missing; a key file of the wrong owner, mode, type or size is
// replaced by a fresh one.
//
// Consuming a token records its grant under a new handle in this process;
// there is no kernel sandbox to hand the grant to.
//
// A process is sandboxed when <proc>/PID/root/.flatpak-info exists, or its
// <proc>/PID/status shows a seccomp filter ("Seccomp:\t2") together with
// "NoNewPrivs:\t1".
// Thread-safe.
#pragma once

#include "platform/security/SandboxService.h"

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace tv::platform {

class LinuxSandboxService final : public SandboxService {
public:
    // `runtimeDir` holds the key (made, mode 0700, when missing); `procRoot`
    // is where process information is read.
    explicit LinuxSandboxService(std::string runtimeDir, std::string procRoot = "/proc");

    // SandboxService
    Result<std::string> issueFileExtension(std::string_view extensionClass, std::string_view path,
                                           std::uint32_t flags) override;
    Result<std::string> issueFileExtensionForCanonicalPath(std::string_view extensionClass,
                                                           std::string_view canonicalPath) override;
    Result<std::int64_t> consumeExtension(std::string_view token) override;
    MaybeError releaseExtension(std::int64_t handle) override;
    bool isProcessSandboxed(pid_t pid) override;

    // Whether the text of a /proc/PID/status file shows a seccomp filter
    // together with no-new-privileges.
    static bool statusShowsSandbox(std::string_view statusText);

    std::string keyPath() const { return runtimeDir_ + "/sandbox.key"; }

private:
    using Key = std::array<unsigned char, 32>;
    struct Grant {
        std::string extensionClass;
        std::string path;
    };

    // REQUIRES: mutex_ held. The key, read or made on first use.
    Result<Key> keyLocked();
    std::string macHex(const Key& key, std::string_view text) const;
    // The signed token text for `granted`, which is absolute.
    Result<std::string> sign(std::string_view extensionClass, std::uint32_t flags, const std::string& granted);

    std::string runtimeDir_;
    std::string procRoot_;
    std::mutex mutex_;
    std::optional<Key> key_;
    std::int64_t nextHandle_ = 1;
    std::map<std::int64_t, Grant> grants_;
};

} // namespace tv::platform
