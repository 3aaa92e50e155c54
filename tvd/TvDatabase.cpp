#include "tvd/TvDatabase.h"

#include "platform/registry/ApplicationRegistry.h"

namespace tv {

std::shared_ptr<TvDatabase> TvDatabase::initWithDatabase(const char* location,
                                                         std::shared_ptr<platform::ApplicationRegistry> workspace)
{
    std::shared_ptr<TvDatabase> db(new TvDatabase());
    if (!db->setupWithDatabase(location, std::move(workspace)))
        return nullptr;
    return db;
}

bool TvDatabase::setupWithDatabase(const char* location, std::shared_ptr<platform::ApplicationRegistry> workspace)
{
    if (!workspace)
        return false;
    workspace_ = std::move(workspace);
    if (location)
        location_ = std::string(location);
    return true;
}

MaybeError TvDatabase::addPlugIn(const Value& url)
{
    if (workspace_->registerPlugIn(url.urlPath()))
        return makeError(2, "Rostra failed to register the plug-in");
    return std::nullopt;
}

MaybeError TvDatabase::removePlugIn(const Value& url)
{
    if (workspace_->unregisterPlugIn(url.urlPath()))
        return makeError(2, "Rostra failed to deregister the plug-in");
    return std::nullopt;
}

} // namespace tv
