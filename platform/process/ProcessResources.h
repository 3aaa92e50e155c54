// ProcessResources: process-wide resource settings a long-running daemon
// makes at start.
//
// raiseDescriptorLimit() lifts the soft limit on open files to the hard
// limit, so that the connection caps (two descriptors per connection) can be
// reached; the IPC limits are then fitted to the result
// (VynLimits::fittedToDescriptors).
//
// returnFreedMemoryPromptly() makes the allocator give memory back to the
// system soon after it is freed: large blocks (read buffers, big decoded
// values) are mapped on their own instead of growing the heap, and the
// heap's top is trimmed sooner. Together with the trim the IPC transport
// asks for when its queues drain, memory taken by a burst of hostile
// requests does not stay resident after it.
#pragma once

#include <cstdint>

namespace tv::platform {

class ProcessResources {
public:
    // The soft limit in effect afterwards (unchanged when raising failed).
    static std::uint64_t raiseDescriptorLimit();
    static void returnFreedMemoryPromptly();
};

} // namespace tv::platform
