#include "platform/process/ProcessResources.h"

#include <malloc.h>
#include <sys/resource.h>

namespace tv::platform {

namespace {
// Blocks at least this large get their own mapping, returned on free. A
// fixed value also stops the allocator from raising the threshold after a
// large free, which would keep later large blocks in the heap.
constexpr int kMmapThreshold = 128 << 10;
// Free memory at the heap's top beyond this is given back at once.
constexpr int kTrimThreshold = 1 << 20;
} // namespace

std::uint64_t ProcessResources::raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 1024;
    if (limit.rlim_cur != limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = limit.rlim_max;
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0)
            limit = raised;
    }
    return limit.rlim_cur == RLIM_INFINITY ? UINT64_MAX : static_cast<std::uint64_t>(limit.rlim_cur);
}

void ProcessResources::returnFreedMemoryPromptly()
{
    ::mallopt(M_MMAP_THRESHOLD, kMmapThreshold);
    ::mallopt(M_TRIM_THRESHOLD, kTrimThreshold);
}

} // namespace tv::platform
