#include "tvd/TvdPlugInHold.h"

#include "platform/ipc/VynService.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdServer.h"
#include "tvd/TvdVynClient.h"

namespace tv {

std::shared_ptr<TvdPlugInHold> TvdPlugInHold::initWithPlugInsForClient(
    const std::vector<std::shared_ptr<TvdPlugIn>>& plugIns, const std::shared_ptr<TvdVynClient>& client)
{
    std::shared_ptr<TvdPlugInHold> hold(new TvdPlugInHold());
    hold->uuid_ = Uuid::random();
    for (const auto& p : plugIns) {
        if (!p || !p->uuid())
            continue;
        if (hold->blocked_.emplace(*p->uuid(), p).second)
            hold->order_.push_back(p);
    }
    hold->client_ = client;
    if (client)
        hold->uid_ = client->uid();
    hold->created_ = Date::now();
    if (client && client->server())
        hold->keepAlive_ = client->server()->platform().vyn;
    if (hold->keepAlive_)
        hold->keepAlive_->beginTransaction();
    return hold;
}

TvdPlugInHold::~TvdPlugInHold()
{
    if (keepAlive_)
        keepAlive_->endTransaction();
}

bool TvdPlugInHold::blocks(const TvdPlugIn& plugIn) const
{
    auto uuid = plugIn.uuid();
    return uuid && blocked_.count(*uuid) > 0;
}

std::vector<std::shared_ptr<TvdPlugIn>> TvdPlugInHold::blocked() const
{
    return order_;
}

bool TvdPlugInHold::placedBy(const std::shared_ptr<TvdVynClient>& client) const
{
    auto placer = client_.lock();
    return placer && placer == client;
}

} // namespace tv
