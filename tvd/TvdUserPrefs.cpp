#include "tvd/TvdUserPrefs.h"

#include "Tarvik/TvLog.h"
#include "platform/preferences/PreferencesService.h"

#include <algorithm>

namespace tv {

std::shared_ptr<TvdUserPrefs> TvdUserPrefs::init(std::shared_ptr<platform::PreferencesService> preferences)
{
    if (!preferences)
        return nullptr;
    return std::shared_ptr<TvdUserPrefs>(new TvdUserPrefs(std::move(preferences)));
}

std::optional<Array> TvdUserPrefs::exclusions() const
{
    MaybeError unreadable = preferences_->synchronize(kDomain);
    Value value = preferences_->copyValue(kDomain, kExclusionsKey);
    std::string problem;
    if (unreadable)
        problem = unreadable->localizedDescription();
    else if (!value.isNull() &&
             (!value.isArray() ||
              !std::all_of(value.asArray()->begin(), value.asArray()->end(),
                           [](const Value& rules) { return rules.isDictionary(); })))
        problem = "\"exclusions\" is not a list of dictionaries";
    reportProblem(problem);
    if (!problem.empty() || value.isNull())
        return std::nullopt;
    return *value.asArray();
}

void TvdUserPrefs::reportProblem(const std::string& problem) const
{
    std::lock_guard lock(mutex_);
    if (problem == lastProblem_)
        return;
    lastProblem_ = problem;
    if (!problem.empty())
        TvLog::ops().error("ignoring the preferences of %{public}s, no plug-in is excluded: %{public}@", kDomain,
                           problem);
}

} // namespace tv
