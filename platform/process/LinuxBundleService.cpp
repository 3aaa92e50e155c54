#include "platform/process/LinuxBundleService.h"

#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace tv::platform {

namespace {

constexpr const char* kInfoFileName = "Info.vlist";

class LinuxBundleHandle final : public BundleHandle {
public:
    explicit LinuxBundleHandle(std::string path) : path_(std::move(path)) {}
    const std::string& path() const { return path_; }
    std::string description() const override { return "<bundle " + path_ + ">"; }

private:
    std::string path_;
};

const LinuxBundleHandle* ours(const BundleHandle& bundle)
{
    return dynamic_cast<const LinuxBundleHandle*>(&bundle);
}

// Absolute, canonical where the file exists, lexically normal, and without
// a trailing separator. Empty for an empty path.
fs::path normalise(const std::string& text)
{
    if (text.empty())
        return {};
    std::error_code ec;
    fs::path p = fs::absolute(text, ec);
    if (ec)
        return {};
    fs::path canonical = fs::weakly_canonical(p, ec);
    p = (ec ? p : canonical).lexically_normal();
    if (!p.has_filename() && p.has_parent_path() && p != p.root_path())
        p = p.parent_path();
    return p;
}

bool isDirectory(const fs::path& p)
{
    struct stat st{};
    return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isRegularFile(const fs::path& p)
{
    struct stat st{};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The walk that finds the bundle claiming an executable runs for every new
// client, so its cost is bounded: an Info.vlist larger than this is not
// read (no bundle has one that large; it cannot claim), and at most
// kMaxClaimReads of them are read per walk.
constexpr off_t kMaxClaimInfoBytes = 1 << 20;
constexpr int kMaxClaimReads = 8;

bool isClaimCandidate(const fs::path& p)
{
    struct stat st{};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxClaimInfoBytes;
}

// The executable a bundle's information dictionary declares, resolved
// against the bundle directory; empty when it declares none that stays
// inside the bundle.
fs::path declaredExecutable(const fs::path& bundleDir, const Value& info)
{
    const std::string* name = info["KbBundleExecutable"].asString();
    if (!name || name->empty())
        return {};
    fs::path relative(*name);
    if (relative.is_absolute())
        return {};
    relative = relative.lexically_normal();
    if (relative.empty() || *relative.begin() == ".." || relative == ".")
        return {};
    return (bundleDir / relative).lexically_normal();
}

// Whether the bundle at `bundleDir` names `executable` (canonical) as its
// executable. The declared path is compared in canonical form too, so a
// bundle whose executable lies behind a link inside it still claims it.
bool claims(const fs::path& bundleDir, const Value& info, const fs::path& executable)
{
    fs::path declared = declaredExecutable(bundleDir, info);
    return !declared.empty() && (declared == executable || normalise(declared.string()) == executable);
}

} // namespace

LinuxBundleService::LinuxBundleService(VlistFileReader readVlist, std::string selfExecutableLink)
    : readVlist_(std::move(readVlist)), selfExecutableLink_(std::move(selfExecutableLink))
{
}

std::shared_ptr<BundleHandle> LinuxBundleService::openBundleDirectory(const std::string& path)
{
    fs::path dir = normalise(path);
    if (dir.empty() || !isDirectory(dir) || !isRegularFile(dir / kInfoFileName))
        return nullptr;
    return std::make_shared<LinuxBundleHandle>(dir.string());
}

std::shared_ptr<BundleHandle> LinuxBundleService::openBundleWithExecutable(const std::string& executablePath)
{
    const fs::path executable = normalise(executablePath);
    if (executable.empty() || !executable.has_parent_path())
        return nullptr;
    // Nearest claiming ancestor wins, so a plug-in's executable belongs to
    // the plug-in and not to the application that contains it.
    int reads = 0;
    for (fs::path dir = executable.parent_path(); reads < kMaxClaimReads; dir = dir.parent_path()) {
        const fs::path info = dir / kInfoFileName;
        if (isClaimCandidate(info)) {
            ++reads;
            Result<Value> read = readVlist_(info.string());
            if (read.ok() && claims(dir, *read, executable))
                return std::make_shared<LinuxBundleHandle>(dir.string());
        }
        if (dir == dir.root_path() || !dir.has_parent_path())
            break;
    }
    return nullptr;
}

std::shared_ptr<BundleHandle> LinuxBundleService::openMainBundle()
{
    std::error_code ec;
    fs::path self = fs::read_symlink(selfExecutableLink_, ec);
    if (ec || self.empty())
        return nullptr;
    return openBundleWithExecutable(self.string());
}

std::optional<std::string> LinuxBundleService::bundlePath(const BundleHandle& bundle)
{
    if (const LinuxBundleHandle* handle = ours(bundle))
        return handle->path();
    return std::nullopt;
}

std::optional<std::string> LinuxBundleService::executablePath(const BundleHandle& bundle)
{
    const LinuxBundleHandle* handle = ours(bundle);
    if (!handle)
        return std::nullopt;
    fs::path executable = declaredExecutable(handle->path(), infoDictionary(bundle));
    if (executable.empty())
        return std::nullopt;
    return executable.string();
}

std::optional<std::string> LinuxBundleService::supportDirectory(const BundleHandle& bundle)
{
    return bundlePath(bundle);
}

Value LinuxBundleService::infoDictionary(const BundleHandle& bundle)
{
    const LinuxBundleHandle* handle = ours(bundle);
    if (!handle)
        return {};
    Result<Value> read = readVlist_((fs::path(handle->path()) / kInfoFileName).string());
    if (!read.ok())
        return {};
    return std::move(read).value();
}

std::optional<std::string> LinuxBundleService::bundleIdentifier(const BundleHandle& bundle)
{
    const Value info = infoDictionary(bundle);
    if (const std::string* identifier = info["KbBundleIdentifier"].asString())
        return *identifier;
    return std::nullopt;
}

} // namespace tv::platform
