#include "platform/preferences/LinuxPreferencesService.h"

#include "platform/PosixError.h"
#include "platform/formats/Vlist.h"

#include <cerrno>
#include <sys/stat.h>

namespace tv::platform {

LinuxPreferencesService::LinuxPreferencesService(std::string preferencesDir) : dir_(std::move(preferencesDir))
{
    while (dir_.size() > 1 && dir_.back() == '/')
        dir_.pop_back();
}

static bool usableDomain(const std::string& domain)
{
    return !domain.empty() && domain.front() != '.' && domain.size() <= 240 &&
           domain.find('/') == std::string::npos && domain.find('\0') == std::string::npos;
}

std::string LinuxPreferencesService::pathForDomain(const std::string& domain) const
{
    return dir_ + "/" + domain + ".vlist";
}

MaybeError LinuxPreferencesService::synchronize(const std::string& domain)
{
    std::lock_guard lock(mutex_);
    return synchronizeLocked(domain);
}

MaybeError LinuxPreferencesService::synchronizeLocked(const std::string& domain)
{
    if (!usableDomain(domain))
        return posixError(EINVAL, "preferences domain \"" + domain + "\"");
    Domain& cached = domains_[domain];
    std::string path = pathForDomain(domain);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        int err = errno;
        cached = Domain{};
        return err == ENOENT ? std::nullopt : MaybeError(posixError(err, "stat " + path));
    }
    FileStamp stamp{st.st_dev, st.st_ino, st.st_size,
                    static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec,
                    static_cast<long long>(st.st_ctim.tv_sec) * 1000000000LL + st.st_ctim.tv_nsec};
    if (cached.stamped && cached.stamp == stamp)
        return cached.error;

    // Stamped with what was seen before the read: a write racing the read
    // leaves a newer stamp on disk, so the next call reads again. A bad file
    // is remembered too, so that it is not parsed again until it changes.
    auto read = readVlistFile(path);
    cached = Domain{};
    cached.stamped = true;
    cached.stamp = stamp;
    if (!read.ok())
        cached.error = read.error();
    else if (!read->isDictionary())
        cached.error = posixError(EINVAL, path + ": the root is not a dictionary");
    else
        cached.contents = std::move(*read);
    return cached.error;
}

Value LinuxPreferencesService::copyValue(const std::string& domain, const std::string& key)
{
    std::lock_guard lock(mutex_);
    auto it = domains_.find(domain);
    if (it == domains_.end()) {
        (void)synchronizeLocked(domain);
        it = domains_.find(domain);
        if (it == domains_.end())
            return Value();
    }
    return it->second.contents[key];
}

} // namespace tv::platform
