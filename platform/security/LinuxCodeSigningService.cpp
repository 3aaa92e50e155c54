#include "platform/security/LinuxCodeSigningService.h"

#include "platform/PosixError.h"
#include "platform/log/PlatformLog.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace tv::platform {

namespace {

constexpr const char* kLogCategory = "codesign";
constexpr const char* kEntitlementsFileName = "Entitlements.vlist";

class LinuxCodeSigningTask final : public CodeSigningTask {
public:
    LinuxCodeSigningTask(pid_t pid, std::string executable, Result<Value> entitlements)
        : pid_(pid), executable_(std::move(executable)), entitlements_(std::move(entitlements))
    {
    }

    const Result<Value>& entitlements() const { return entitlements_; }

    std::string description() const override
    {
        return "<codesign task pid=" + std::to_string(pid_) + " executable=" + executable_ + ">";
    }

private:
    pid_t pid_;
    std::string executable_;
    Result<Value> entitlements_;
};

template <class... Args>
void logIgnored(std::string_view format, const Args&... args)
{
    platformLog(LogLevel::Default, kLogCategory, format, args...);
}

// Why a file system object may not be trusted, or empty when it may.
std::string distrust(const struct stat& st)
{
    if (st.st_uid != 0 && st.st_uid != ::geteuid())
        return "owned by uid " + std::to_string(st.st_uid) + ", neither root nor the daemon's user";
    if (st.st_mode & (S_IWGRP | S_IWOTH))
        return "writable by group or others";
    return {};
}

// Why the object at `path` (links followed) may not be trusted, or empty.
std::string distrustPath(const std::string& path)
{
    struct stat st{};
    if (::stat(path.c_str(), &st) != 0)
        return posixError(errno, "stat " + path).localizedDescription();
    std::string reason = distrust(st);
    return reason.empty() ? reason : path + " is " + reason;
}

bool sameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

std::string canonical(const std::string& path)
{
    std::error_code ec;
    fs::path p = fs::weakly_canonical(fs::absolute(path, ec), ec);
    return ec ? fs::path(path).lexically_normal().string() : p.lexically_normal().string();
}

} // namespace

LinuxCodeSigningService::LinuxCodeSigningService(std::shared_ptr<ProcessInfo> processInfo,
                                                 std::shared_ptr<BundleService> bundles, std::string dropInDir,
                                                 VlistFileReader readVlist)
    : processInfo_(std::move(processInfo)),
      bundles_(std::move(bundles)),
      dropInDir_(std::move(dropInDir)),
      readVlist_(std::move(readVlist))
{
}

std::shared_ptr<CodeSigningTask> LinuxCodeSigningService::createTask(const AuditToken& token)
{
    Result<std::string> executable = processInfo_->executablePath(token.pid, token.pidfd);
    if (!executable.ok())
        return std::make_shared<LinuxCodeSigningTask>(token.pid, std::string(), executable.error());
    return std::make_shared<LinuxCodeSigningTask>(token.pid, *executable, entitlementsOfExecutable(*executable));
}

Value LinuxCodeSigningService::entitlementValueForKey(const CodeSigningTask& task, std::string_view key,
                                                      MaybeError* error)
{
    const auto* ours = dynamic_cast<const LinuxCodeSigningTask*>(&task);
    if (!ours) {
        if (error)
            *error = posixError(EINVAL, "code-signing task " + task.description() + " of another service");
        return {};
    }
    if (!ours->entitlements().ok()) {
        if (error)
            *error = ours->entitlements().error();
        return {};
    }
    return (*ours->entitlements())[key];
}

Result<Value> LinuxCodeSigningService::entitlementsOfExecutable(const std::string& path)
{
    const std::string executable = canonical(path);
    struct stat st{};
    if (::stat(executable.c_str(), &st) != 0)
        return posixError(errno, "stat " + executable);

    std::string reason = distrustPath(executable);
    if (reason.empty())
        reason = distrustPath(fs::path(executable).parent_path().string());
    if (!reason.empty()) {
        logIgnored("ignoring entitlements of %{public}s: %{public}s", executable, reason);
        return Value::emptyDictionary();
    }

    std::optional<std::string> bundleDir;
    if (std::shared_ptr<BundleHandle> bundle = bundles_->openBundleWithExecutable(executable))
        bundleDir = bundles_->bundlePath(*bundle);
    return bundleDir ? bundleEntitlements(*bundleDir) : dropInEntitlements(executable);
}

Value LinuxCodeSigningService::bundleEntitlements(const std::string& bundleDir)
{
    const std::string file = (fs::path(bundleDir) / kEntitlementsFileName).string();
    Value entitlements = readTrustedFile(file, bundleDir);
    if (entitlements.isNull())
        return Value::emptyDictionary();
    if (!entitlements.isDictionary()) {
        logIgnored("ignoring %{public}s: not a dictionary", file);
        return Value::emptyDictionary();
    }
    return entitlements;
}

Value LinuxCodeSigningService::dropInEntitlements(const std::string& executable)
{
    if (dropInDir_.empty())
        return Value::emptyDictionary();
    std::error_code ec;
    if (!fs::is_directory(dropInDir_, ec))
        return Value::emptyDictionary();

    std::vector<std::string> names;
    for (fs::directory_iterator it(dropInDir_, ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (name.size() > 6 && name.ends_with(".vlist"))
            names.push_back(std::move(name));
    }
    if (ec)
        logIgnored("ignoring drop-in directory %{public}s: %{public}s", dropInDir_, ec.message());
    std::sort(names.begin(), names.end());

    Dictionary merged;
    for (const std::string& name : names) {
        const std::string file = (fs::path(dropInDir_) / name).string();
        Value entry = readTrustedFile(file, dropInDir_);
        if (entry.isNull())
            continue;
        const std::string* named = entry["Executable"].asString();
        const Dictionary* granted = entry["Entitlements"].asDictionary();
        if (!named || !fs::path(*named).is_absolute() || !granted) {
            logIgnored("ignoring %{public}s: not a dictionary with an absolute \"Executable\" and "
                       "an \"Entitlements\" dictionary",
                       file);
            continue;
        }
        if (canonical(*named) != executable)
            continue;
        for (const auto& [key, value] : *granted)
            merged.insert_or_assign(key, value);
    }
    return Value::dictionary(std::move(merged));
}

Value LinuxCodeSigningService::readTrustedFile(const std::string& file, const std::string& directory)
{
    struct stat before{};
    if (::lstat(file.c_str(), &before) != 0) {
        if (errno != ENOENT)
            logIgnored("ignoring %{public}s: %{public}s", file,
                       posixError(errno, "lstat").localizedDescription());
        return {};
    }
    std::string reason;
    if (!S_ISREG(before.st_mode))
        reason = "not a regular file";
    else if (reason = distrust(before); reason.empty())
        reason = distrustPath(directory);
    if (!reason.empty()) {
        logIgnored("ignoring %{public}s: %{public}s", file, reason);
        return {};
    }

    Result<Value> read = readVlist_(file);
    if (!read.ok()) {
        logIgnored("ignoring %{public}s: %{public}s", file, read.error().localizedDescription());
        return {};
    }
    // A file replaced between the checks and the read is not the file that
    // was checked.
    struct stat after{};
    if (::lstat(file.c_str(), &after) != 0 || !sameFile(before, after)) {
        logIgnored("ignoring %{public}s: changed while it was read", file);
        return {};
    }
    return std::move(read).value();
}

} // namespace tv::platform
