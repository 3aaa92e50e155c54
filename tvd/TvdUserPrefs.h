// TvdUserPrefs: the daemon's administrative preferences, read from the
// preferences domain "com.veltra.tarvik.userprefs" of the current user.
//
// "exclusions" is a list of match-rule dictionaries; a plug-in that matches
// any of them is hidden from every host. Every read synchronises the domain
// first, so a value written by another process (an administrator, a
// management tool) takes effect at the next request, without a restart. The
// daemon never writes the domain. Anything but a list of dictionaries
// (including an unreadable or malformed preferences file) means no
// exclusion.
//
// Thread-safety: safe from any thread (the preferences service is).
#pragma once

#include "base/Value.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tv {

namespace platform {
class PreferencesService;
} // namespace platform

class TvdUserPrefs {
public:
    static constexpr const char* kDomain = "com.veltra.tarvik.userprefs";
    static constexpr const char* kExclusionsKey = "exclusions";

    // Null without a preferences service.
    static std::shared_ptr<TvdUserPrefs> init(std::shared_ptr<platform::PreferencesService> preferences);

    // The current global exclusions: a list whose every element is a
    // dictionary of match rules, or none. An unusable value or file is
    // logged (once, until the problem changes) and reads as none.
    std::optional<Array> exclusions() const;

private:
    explicit TvdUserPrefs(std::shared_ptr<platform::PreferencesService> preferences)
        : preferences_(std::move(preferences)) {}

    void reportProblem(const std::string& problem) const;

    std::shared_ptr<platform::PreferencesService> preferences_;
    mutable std::mutex mutex_;
    mutable std::string lastProblem_; // guarded by mutex_
};

} // namespace tv
