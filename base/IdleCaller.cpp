#include "base/IdleCaller.h"

namespace tv {

namespace {
thread_local bool tIdle = false;
} // namespace

IdleCaller::Scope::Scope(bool idle) : saved_(tIdle)
{
    tIdle = idle;
}

IdleCaller::Scope::~Scope()
{
    tIdle = saved_;
}

bool IdleCaller::isIdle()
{
    return tIdle;
}

} // namespace tv
