// ProcessResources: process-wide resource settings a long-running daemon
// makes at start.
//
// raiseDescriptorLimit() lifts the soft limit on open files to the hard
// limit, so that the connection caps (two descriptors per connection) can be
// reached; the IPC limits are then fitted to the result
// (VynLimits::fittedToDescriptors).
//
// returnFreedMemoryPromptly() makes the allocator give memory back to the
// system soon after it is freed, and releaseFreedMemory() gives back what is
// free now (the IPC transport asks for it when its queues drain), so that
// memory taken by a burst of hostile requests does not stay resident after
// it. Both work with the allocator the process runs with: jemalloc (the
// daemon's, found through its control interface) or glibc's (tests and
// sanitized builds).
#pragma once

#include <cstdint>

namespace tv::platform {

class ProcessResources {
public:
    // The soft limit in effect afterwards (unchanged when raising failed).
    static std::uint64_t raiseDescriptorLimit();
    static void returnFreedMemoryPromptly();
    static void releaseFreedMemory();
};

} // namespace tv::platform
