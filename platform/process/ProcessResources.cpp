#include "platform/process/ProcessResources.h"

#include <malloc.h>
#include <string>
#include <sys/types.h>
#include <sys/resource.h>

// jemalloc's control interface, present when the process runs with it.
extern "C" int mallctl(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen)
    __attribute__((weak));

namespace tv::platform {

namespace {
// jemalloc: how long freed pages stay before they are given back.
constexpr ssize_t kDecayMilliseconds = 1000;
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
    if (mallctl) {
        // Freed pages go back within a second instead of ten: the default
        // for arenas made later, then each arena made so far.
        auto setDecay = [](const std::string& prefix) {
            ssize_t decay = kDecayMilliseconds;
            return mallctl((prefix + "dirty_decay_ms").c_str(), nullptr, nullptr, &decay, sizeof decay) == 0 &&
                   mallctl((prefix + "muzzy_decay_ms").c_str(), nullptr, nullptr, &decay, sizeof decay) == 0;
        };
        setDecay("arenas.");
        for (unsigned arena = 0; setDecay("arena." + std::to_string(arena) + "."); ++arena) {
        }
        return;
    }
    ::mallopt(M_MMAP_THRESHOLD, kMmapThreshold);
    ::mallopt(M_TRIM_THRESHOLD, kTrimThreshold);
}

void ProcessResources::releaseFreedMemory()
{
    if (mallctl) {
        // 4096 names every arena at once (MALLCTL_ARENAS_ALL).
        mallctl("arena.4096.purge", nullptr, nullptr, nullptr, 0);
        return;
    }
    ::malloc_trim(0);
}

} // namespace tv::platform
