#include "platform/processstate/LinuxProcessStateService.h"

#include "platform/PosixError.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <climits>
#include <dirent.h>
#include <map>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

namespace {

constexpr std::string_view kDeletedSuffix = " (deleted)";

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};

// The process ids listed in `procRoot`, ascending.
std::vector<pid_t> listPids(DIR* dir)
{
    std::vector<pid_t> pids;
    while (dirent* entry = ::readdir(dir)) {
        const char* name = entry->d_name;
        if (*name < '1' || *name > '9')
            continue;
        char* end = nullptr;
        long pid = std::strtol(name, &end, 10);
        if (*end == '\0' && pid > 0 && pid <= INT_MAX)
            pids.push_back(static_cast<pid_t>(pid));
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

std::optional<std::string> readLink(const std::string& link)
{
    char buffer[PATH_MAX];
    ssize_t n = ::readlink(link.c_str(), buffer, sizeof buffer);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof buffer)
        return std::nullopt;
    return std::string(buffer, static_cast<std::size_t>(n));
}

} // namespace

LinuxProcessStateService::LinuxProcessStateService(std::shared_ptr<BundleService> bundles, std::string procRoot)
    : bundles_(std::move(bundles)), procRoot_(std::move(procRoot))
{
}

Result<std::vector<Value>> LinuxProcessStateService::busyExtensionInstances(
    const std::set<std::string>& bundleIdentifiers)
{
    std::vector<Value> instances;
    if (bundleIdentifiers.empty())
        return instances;
    std::unique_ptr<DIR, DirCloser> proc(::opendir(procRoot_.c_str()));
    if (!proc)
        return posixError(errno, "cannot read the process table at " + procRoot_);

    // Directory to the identifier of the bundle it is (absent: no bundle, or
    // one without an identifier), filled as the walks need it.
    std::map<std::string, std::optional<std::string>, std::less<>> bundleAt;
    auto identifierOf = [&](const std::string& dir) -> const std::optional<std::string>& {
        auto it = bundleAt.find(dir);
        if (it != bundleAt.end())
            return it->second;
        std::optional<std::string> identifier;
        struct stat st{};
        if (::stat((dir + "/Info.vlist").c_str(), &st) == 0 && S_ISREG(st.st_mode))
            if (auto bundle = bundles_->openBundleDirectory(dir))
                identifier = bundles_->bundleIdentifier(*bundle);
        return bundleAt.emplace(dir, std::move(identifier)).first->second;
    };

    // The identifier asked about of the first bundle at or above `dir`; the
    // root is never a bundle.
    auto askedBundleFrom = [&](std::string dir) -> std::optional<std::string> {
        for (std::size_t depth = 0; depth < kMaxDepth && dir.size() > 1; ++depth) {
            const auto& identifier = identifierOf(dir);
            if (identifier && bundleIdentifiers.contains(*identifier))
                return identifier;
            dir.resize(std::max<std::size_t>(dir.rfind('/'), 1));
        }
        return std::nullopt;
    };
    // Executable directory to the answer of askedBundleFrom(): the processes
    // of one program cost one walk.
    std::map<std::string, std::optional<std::string>, std::less<>> askedBundleAbove;

    for (pid_t pid : listPids(proc.get())) {
        auto executable = readLink(procRoot_ + "/" + std::to_string(pid) + "/exe");
        if (!executable || executable->empty() || (*executable)[0] != '/')
            continue;
        if (executable->ends_with(kDeletedSuffix))
            executable->resize(executable->size() - kDeletedSuffix.size());
        std::string directory = executable->substr(0, executable->rfind('/'));
        auto known = askedBundleAbove.find(directory);
        if (known == askedBundleAbove.end())
            known = askedBundleAbove.emplace(directory, askedBundleFrom(directory)).first;
        if (known->second)
            instances.push_back(Value{{kInstanceBundleIdentifierKey, *known->second},
                                      {kInstanceProcessIdentifierKey, Value(std::int64_t{pid})},
                                      {kInstanceExecutableKey, *executable}});
    }
    return instances;
}

} // namespace tv::platform
