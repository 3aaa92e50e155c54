#include "base/DeferredFlush.h"

#include <vector>

namespace tv {

namespace {
thread_local int tDepth = 0;
thread_local std::vector<std::shared_ptr<DeferredFlush::Target>> tTargets;
} // namespace

DeferredFlush::Scope::Scope()
{
    ++tDepth;
}

DeferredFlush::Scope::~Scope()
{
    if (tDepth == 1)
        flushNow();
    --tDepth;
}

bool DeferredFlush::active()
{
    return tDepth > 0;
}

bool DeferredFlush::defer(std::shared_ptr<Target> target)
{
    if (tDepth == 0)
        return false;
    tTargets.push_back(std::move(target));
    return true;
}

void DeferredFlush::flushNow()
{
    // A flush may defer again (it runs inside the run): take the list first.
    while (!tTargets.empty()) {
        std::vector<std::shared_ptr<Target>> batch;
        batch.swap(tTargets);
        for (auto& target : batch)
            target->flushDeferred();
    }
}

} // namespace tv
