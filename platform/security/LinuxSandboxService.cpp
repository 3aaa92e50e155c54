#include "platform/security/LinuxSandboxService.h"

#include "platform/PosixError.h"

#include "platform/PlatformConfig.h"
#include "platform/log/PlatformLog.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

namespace {

constexpr std::size_t kMaxClassLength = 255;
constexpr std::size_t kMacHexLength = 64;

// Failures leave their errno set for callers that read it.
TvError failure(int err, const std::string& what)
{
    TvError e = platform::posixError(err, what);
    errno = err;
    return e;
}

bool isValidClass(std::string_view c)
{
    if (c.empty() || c.size() > kMaxClassLength)
        return false;
    for (char ch : c)
        if (!((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '.' ||
              ch == '_' || ch == '-'))
            return false;
    return true;
}

// Makes `dir` and its missing parents, mode 0700.
int makeDirectories(const std::string& dir)
{
    if (dir.empty())
        return ENOENT;
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0)
        return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
    std::size_t slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0)
        if (int err = makeDirectories(dir.substr(0, slash)))
            return err;
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
        return errno;
    return 0;
}

// Moves all `n` bytes with read(2) or write(2), going on after short
// transfers and interruptions; false on an error or end of file.
template <class Byte, class Io>
bool transferFully(Io io, int fd, Byte* p, std::size_t n)
{
    while (n) {
        ssize_t r = io(fd, p, n);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        p += r;
        n -= static_cast<std::size_t>(r);
    }
    return true;
}

bool readFully(int fd, unsigned char* p, std::size_t n)
{
    return transferFully(::read, fd, p, n);
}

bool writeFully(int fd, const unsigned char* p, std::size_t n)
{
    return transferFully(::write, fd, p, n);
}

std::optional<std::uint64_t> parseDecimal(std::string_view text)
{
    if (text.empty() || text.size() > 19)
        return std::nullopt;
    std::uint64_t v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return v;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

} // namespace

LinuxSandboxService::LinuxSandboxService(std::string runtimeDir, std::string procRoot)
    : runtimeDir_(std::move(runtimeDir)), procRoot_(std::move(procRoot))
{}

Result<LinuxSandboxService::Key> LinuxSandboxService::keyLocked()
{
    if (key_)
        return *key_;
    if (int err = makeDirectories(runtimeDir_))
        return failure(err, "cannot make runtime directory " + runtimeDir_);
    const std::string path = keyPath();

    // A few rounds at most: another process may create the key between our
    // look and our link, in which case its key is the one to read.
    for (int round = 0; round < 4; ++round) {
        bool replace = false;
        int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (fd >= 0) {
            struct stat st;
            Key key;
            bool good = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
                        (st.st_mode & 07777) == 0600 && st.st_size == static_cast<off_t>(key.size()) &&
                        readFully(fd, key.data(), key.size());
            ::close(fd);
            if (good) {
                key_ = key;
                return key;
            }
            platformLog(LogLevel::Error, "sandbox", "replacing unusable sandbox key file %{public}s", path);
            replace = true;
        } else if (errno == ELOOP) {
            platformLog(LogLevel::Error, "sandbox", "replacing sandbox key symbolic link %{public}s", path);
            replace = true;
        } else if (errno != ENOENT) {
            return failure(errno, "cannot open sandbox key " + path);
        }

        Key key;
        if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1)
            return failure(EIO, "cannot generate sandbox key");
        std::string temp = path + ".XXXXXX";
        int tfd = ::mkostemp(temp.data(), O_CLOEXEC);
        if (tfd < 0)
            return failure(errno, "cannot create sandbox key in " + runtimeDir_);
        bool written = ::fchmod(tfd, 0600) == 0 && writeFully(tfd, key.data(), key.size()) && ::fsync(tfd) == 0;
        int writeErr = errno;
        ::close(tfd);
        if (!written) {
            ::unlink(temp.c_str());
            return failure(writeErr ? writeErr : EIO, "cannot write sandbox key " + temp);
        }
        // A missing key is created with link(), which fails when another
        // process got there first; an unusable one is replaced by rename().
        int placed = replace ? ::rename(temp.c_str(), path.c_str()) : ::link(temp.c_str(), path.c_str());
        int placeErr = errno;
        if (!replace || placed != 0)
            ::unlink(temp.c_str());
        if (placed == 0) {
            key_ = key;
            return key;
        }
        if (placeErr != EEXIST)
            return failure(placeErr, "cannot install sandbox key " + path);
    }
    return failure(EAGAIN, "sandbox key " + path + " keeps changing");
}

std::string LinuxSandboxService::macHex(const Key& key, std::string_view text) const
{
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int macLength = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
         text.size(), mac, &macLength);
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(macLength * 2);
    for (unsigned int i = 0; i < macLength; ++i) {
        hex += digits[mac[i] >> 4];
        hex += digits[mac[i] & 0xf];
    }
    return hex;
}

Result<std::string> LinuxSandboxService::issueFileExtension(std::string_view extensionClass, std::string_view path,
                                                            std::uint32_t flags)
{
    if (!isValidClass(extensionClass))
        return failure(EINVAL, "invalid extension class");
    if (path.empty() || path.find('\0') != std::string_view::npos)
        return failure(EINVAL, "invalid path");
    std::string granted;
    if (flags & kSandboxExtensionCanonical) {
        char* resolved = ::realpath(std::string(path).c_str(), nullptr);
        if (!resolved)
            return failure(errno, "cannot resolve " + std::string(path));
        granted = resolved;
        std::free(resolved);
    } else {
        if (path.front() != '/')
            return failure(EINVAL, "path is not absolute: " + std::string(path));
        granted = path;
    }

    return sign(extensionClass, flags, granted);
}

Result<std::string> LinuxSandboxService::issueFileExtensionForCanonicalPath(std::string_view extensionClass,
                                                                            std::string_view canonicalPath)
{
    if (!isValidClass(extensionClass))
        return failure(EINVAL, "invalid extension class");
    if (canonicalPath.empty() || canonicalPath.find('\0') != std::string_view::npos)
        return failure(EINVAL, "invalid path");
    if (canonicalPath.front() != '/')
        return failure(EINVAL, "path is not absolute: " + std::string(canonicalPath));
    return sign(extensionClass, kSandboxExtensionCanonical, std::string(canonicalPath));
}

Result<std::string> LinuxSandboxService::sign(std::string_view extensionClass, std::uint32_t flags,
                                              const std::string& granted)
{
    std::string text = std::string(extensionClass) + ';' + std::to_string(flags) + ';' +
                       std::to_string(granted.size()) + ':' + granted;
    std::lock_guard lock(mutex_);
    Result<Key> key = keyLocked();
    if (!key)
        return key.error();
    std::string mac = macHex(*key, text);
    return text + ';' + mac;
}

Result<std::int64_t> LinuxSandboxService::consumeExtension(std::string_view token)
{
    auto malformed = [] { return failure(EINVAL, "malformed sandbox extension token"); };
    std::string_view rest = token;
    std::size_t at = rest.find(';');
    if (at == std::string_view::npos || !isValidClass(rest.substr(0, at)))
        return malformed();
    std::string_view extensionClass = rest.substr(0, at);
    rest.remove_prefix(at + 1);
    at = rest.find(';');
    if (at == std::string_view::npos || !parseDecimal(rest.substr(0, at)))
        return malformed();
    rest.remove_prefix(at + 1);
    at = rest.find(':');
    std::optional<std::uint64_t> length = at == std::string_view::npos ? std::nullopt : parseDecimal(rest.substr(0, at));
    if (!length)
        return malformed();
    rest.remove_prefix(at + 1);
    // What remains is exactly the path, ";" and the MAC.
    if (rest.size() != *length + 1 + kMacHexLength || rest[*length] != ';')
        return malformed();
    std::string_view path = rest.substr(0, *length);
    std::string_view macText = rest.substr(*length + 1);
    unsigned char given[kMacHexLength / 2];
    for (std::size_t i = 0; i < sizeof given; ++i) {
        int hi = hexDigit(macText[2 * i]), lo = hexDigit(macText[2 * i + 1]);
        if (hi < 0 || lo < 0)
            return malformed();
        given[i] = static_cast<unsigned char>(hi << 4 | lo);
    }
    std::string_view signedText = token.substr(0, token.size() - 1 - kMacHexLength);

    std::lock_guard lock(mutex_);
    Result<Key> key = keyLocked();
    if (!key)
        return key.error();
    unsigned char expected[EVP_MAX_MD_SIZE];
    unsigned int expectedLength = 0;
    HMAC(EVP_sha256(), key->data(), static_cast<int>(key->size()),
         reinterpret_cast<const unsigned char*>(signedText.data()), signedText.size(), expected, &expectedLength);
    if (expectedLength != sizeof given || CRYPTO_memcmp(expected, given, sizeof given) != 0)
        return failure(EPERM, "sandbox extension token not issued here");
    std::int64_t handle = nextHandle_++;
    grants_.emplace(handle, Grant{std::string(extensionClass), std::string(path)});
    return handle;
}

MaybeError LinuxSandboxService::releaseExtension(std::int64_t handle)
{
    std::lock_guard lock(mutex_);
    if (grants_.erase(handle) == 0)
        return failure(EINVAL, "unknown sandbox extension handle " + std::to_string(handle));
    return std::nullopt;
}

bool LinuxSandboxService::statusShowsSandbox(std::string_view status)
{
    bool seccompFilter = false, noNewPrivs = false;
    while (!status.empty()) {
        std::size_t end = status.find('\n');
        std::string_view line = status.substr(0, end);
        status.remove_prefix(end == std::string_view::npos ? status.size() : end + 1);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r'))
            line.remove_suffix(1);
        if (line == "Seccomp:\t2")
            seccompFilter = true;
        else if (line == "NoNewPrivs:\t1")
            noNewPrivs = true;
    }
    return seccompFilter && noNewPrivs;
}

bool LinuxSandboxService::isProcessSandboxed(pid_t pid)
{
    if (pid <= 0)
        return false;
    int savedErrno = errno;
    std::string base = procRoot_ + '/' + std::to_string(pid);
    struct stat st;
    bool sandboxed = ::stat((base + "/root/.flatpak-info").c_str(), &st) == 0;
    if (!sandboxed) {
        std::ifstream status(base + "/status");
        if (status) {
            std::ostringstream text;
            text << status.rdbuf();
            sandboxed = statusShowsSandbox(text.str());
        }
    }
    errno = savedErrno;
    return sandboxed;
}

namespace {
// Never destroyed: threads of the process may ask for it while it exits.
struct SandboxSlot {
    std::mutex mutex;
    std::shared_ptr<SandboxService> service;
};

SandboxSlot& sandboxSlot()
{
    static SandboxSlot& slot = *new SandboxSlot;
    return slot;
}
} // namespace

std::shared_ptr<SandboxService> sandboxService()
{
    SandboxSlot& slot = sandboxSlot();
    std::lock_guard lock(slot.mutex);
    if (!slot.service) {
        Result<PlatformConfig> config = PlatformConfig::load();
        if (!config) {
            platformLog(LogLevel::Error, "sandbox", "no sandbox service: %{public}s",
                        config.error().localizedDescription());
            return nullptr;
        }
        slot.service = std::make_shared<LinuxSandboxService>(config->runtimeDir);
    }
    return slot.service;
}

std::shared_ptr<SandboxService> setSandboxService(std::shared_ptr<SandboxService> service)
{
    SandboxSlot& slot = sandboxSlot();
    std::lock_guard lock(slot.mutex);
    auto previous = std::move(slot.service);
    slot.service = std::move(service);
    return previous;
}

} // namespace tv::platform
