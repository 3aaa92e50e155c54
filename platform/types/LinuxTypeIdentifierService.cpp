#include "platform/types/LinuxTypeIdentifierService.h"

#include "platform/log/PlatformLog.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {

namespace {

constexpr const char* kLogCategory = "types";
constexpr std::size_t kMaxCycleNamesLogged = 16;
constexpr std::uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_FROM |
                                     IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

bool isDeclarationFileName(std::string_view name)
{
    constexpr std::string_view suffix = ".vlist";
    return !name.empty() && name.front() != '.' && name.size() > suffix.size() &&
           name.substr(name.size() - suffix.size()) == suffix;
}

// The declarations of one file's value; malformed entries are logged and
// skipped, the rest kept.
void collectDeclarations(const std::string& path, const Value& root, std::vector<TypeDeclaration>& out)
{
    const Value& list = root["TypeDeclarations"];
    if (!list.isArray()) {
        platformLog(LogLevel::Error, kLogCategory, "type file %{public}s has no TypeDeclarations array", path);
        return;
    }
    std::size_t index = 0;
    for (const Value& entry : *list.asArray()) {
        ++index;
        const std::string* identifier = entry["TypeIdentifier"].asString();
        if (!identifier || identifier->empty()) {
            platformLog(LogLevel::Error, kLogCategory,
                        "type file %{public}s: declaration %zu has no TypeIdentifier string", path, index);
            continue;
        }
        TypeDeclaration declaration{*identifier, {}};
        const Value& parents = entry["ConformsTo"];
        if (const std::string* one = parents.asString()) {
            declaration.conformsTo.push_back(*one);
        } else if (const Array* many = parents.asArray()) {
            for (const Value& parent : *many) {
                if (const std::string* name = parent.asString())
                    declaration.conformsTo.push_back(*name);
                else
                    platformLog(LogLevel::Error, kLogCategory,
                                "type file %{public}s: %{public}s conforms to a non-string, ignored", path,
                                *identifier);
            }
        } else if (!parents.isNull()) {
            platformLog(LogLevel::Error, kLogCategory,
                        "type file %{public}s: ConformsTo of %{public}s is neither a string nor an array, ignored",
                        path, *identifier);
        }
        out.push_back(std::move(declaration));
    }
}

} // namespace

LinuxTypeIdentifierService::LinuxTypeIdentifierService(std::string typesDir, VlistFileReader reader)
    : typesDir_(std::move(typesDir)), reader_(std::move(reader))
{
    inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotifyFd_ < 0)
        platformLog(LogLevel::Error, kLogCategory,
                    "cannot watch the types directory (%{public}s); declarations are read once", std::strerror(errno));
}

LinuxTypeIdentifierService::~LinuxTypeIdentifierService()
{
    if (inotifyFd_ >= 0)
        ::close(inotifyFd_);
}

std::vector<TypeDeclaration> LinuxTypeIdentifierService::readDeclarations(const std::string& typesDir,
                                                                          const VlistFileReader& reader)
{
    std::vector<TypeDeclaration> declarations;
    DIR* dir = ::opendir(typesDir.c_str());
    if (!dir) {
        if (errno != ENOENT)
            platformLog(LogLevel::Error, kLogCategory, "cannot read types directory %{public}s: %{public}s", typesDir,
                        std::strerror(errno));
        return declarations;
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        if (isDeclarationFileName(entry->d_name))
            names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    // A fixed order, so that logs and merged declarations do not depend on
    // the directory's hash order.
    std::sort(names.begin(), names.end());

    for (const std::string& name : names) {
        std::string path = typesDir;
        if (path.back() != '/')
            path += '/';
        path += name;
        struct stat st;
        if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        Result<Value> contents = reader(path);
        if (!contents) {
            platformLog(LogLevel::Error, kLogCategory, "cannot read type file %{public}s: %{public}s", path,
                        contents.error().localizedDescription());
            continue;
        }
        collectDeclarations(path, *contents, declarations);
    }
    return declarations;
}

bool LinuxTypeIdentifierService::directoryChangedLocked()
{
    if (inotifyFd_ < 0)
        return false;
    bool changed = false;
    if (watch_ < 0) {
        watch_ = ::inotify_add_watch(inotifyFd_, typesDir_.c_str(), kWatchMask);
        // A directory that appeared since the last table was built.
        changed = watch_ >= 0;
    }
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        ssize_t n = ::read(inotifyFd_, buffer, sizeof buffer);
        if (n <= 0)
            break;
        changed = true;
        for (ssize_t offset = 0; offset < n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            if (event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
                if (watch_ >= 0 && event->wd == watch_) {
                    ::inotify_rm_watch(inotifyFd_, watch_);
                    watch_ = -1;
                }
            }
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    return changed;
}

void LinuxTypeIdentifierService::rebuildLocked()
{
    auto table = std::make_shared<const TypeConformanceTable>(readDeclarations(typesDir_, reader_));
    const std::vector<std::string>& cycle = table->cycleMembers();
    if (!cycle.empty()) {
        std::string names;
        for (std::size_t i = 0; i < cycle.size() && i < kMaxCycleNamesLogged; ++i)
            names += (i ? ", " : "") + cycle[i];
        if (cycle.size() > kMaxCycleNamesLogged)
            names += ", ...";
        platformLog(LogLevel::Error, kLogCategory,
                    "type declarations in %{public}s form a cycle through %zu types (%{public}s); they are "
                    "taken to conform to each other",
                    typesDir_, cycle.size(), names);
    }
    table_ = std::move(table);
    ++buildCount_;
}

unsigned LinuxTypeIdentifierService::buildCount() const
{
    std::lock_guard lock(mutex_);
    return buildCount_;
}

std::shared_ptr<const TypeConformanceTable> LinuxTypeIdentifierService::table()
{
    std::lock_guard lock(mutex_);
    // Establish the watch before reading, so a change made while the files
    // are read is seen by the next question.
    bool changed = directoryChangedLocked();
    if (!table_ || changed)
        rebuildLocked();
    return table_;
}

bool LinuxTypeIdentifierService::conformsTo(std::string_view type, std::string_view otherType)
{
    return table()->conformsTo(type, otherType);
}

} // namespace tv::platform
