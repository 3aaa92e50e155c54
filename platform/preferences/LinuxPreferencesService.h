// LinuxPreferencesService: one vlist file per domain,
// `<preferences dir>/<domain>.vlist`, whose root is a dictionary. The
// directory comes from the platform configuration (`preferences_dir`: per
// user `$XDG_CONFIG_HOME/tvd/preferences`, for root `/etc/tvd/preferences`).
//
// synchronize() stats the file and re-reads it only when its device, inode,
// size, modification time or change time differ from the copy in the cache,
// so a file replaced atomically (new inode) or edited in place is picked up
// and an unchanged one costs one stat. Files are read with the vlist parser's
// limits (16 MiB, depth 64); a file that is not a dictionary reads as empty.
//
// Thread-safe: the cache is guarded by a mutex.
#pragma once

#include "platform/preferences/PreferencesService.h"

#include <map>
#include <mutex>
#include <string>
#include <sys/types.h>

namespace tv::platform {

class LinuxPreferencesService final : public PreferencesService {
public:
    explicit LinuxPreferencesService(std::string preferencesDir);

    // The file that holds `domain`.
    std::string pathForDomain(const std::string& domain) const;

    // PreferencesService
    MaybeError synchronize(const std::string& domain) override;
    Value copyValue(const std::string& domain, const std::string& key) override;

private:
    struct FileStamp {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = -1;
        long long mtimeNs = 0;
        long long ctimeNs = 0;
        friend bool operator==(const FileStamp&, const FileStamp&) = default;
    };
    struct Domain {
        bool stamped = false; // `stamp` describes the file that gave `contents` / `error`
        FileStamp stamp;
        Value contents = Value::emptyDictionary();
        MaybeError error; // why that file reads as empty
    };

    MaybeError synchronizeLocked(const std::string& domain);

    std::string dir_;
    std::mutex mutex_;
    std::map<std::string, Domain> domains_;
};

} // namespace tv::platform
