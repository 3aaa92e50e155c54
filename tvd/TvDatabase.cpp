#include "tvd/TvDatabase.h"

namespace tv {

std::shared_ptr<TvDatabase> TvDatabase::initWithDatabase(const char* location)
{
    std::shared_ptr<TvDatabase> db(new TvDatabase());
    if (!db->setupWithDatabase(location))
        return nullptr;
    return db;
}

bool TvDatabase::setupWithDatabase(const char* location)
{
    if (location)
        location_ = std::string(location);
    return true;
}

} // namespace tv
