// TvdTrace: the daemon's static tracing points, provider "tvd".
//
// Each point is a USDT probe with an is-enabled semaphore; `readelf -n tvd`
// lists them and `bpftrace -l 'usdt:PATH:tvd:*'` attaches to them. Every
// point is fired through this class, so that all ten live in one object that
// is always linked into the daemon. Points whose arguments are costly to make
// (message descriptions) have an `...Enabled()` check so the text is only
// made while a tracer listens.
#pragma once

#include <cstdint>
#include <string>

namespace tv {

class TvdTrace {
public:
    // A client was constructed.
    static void clientNew(int pid);
    // A client's connection became invalid, after its holds were released.
    static void clientDone(int pid);
    // Each request message, before its transaction is made.
    static bool requestInputEnabled();
    static void requestInput(int pid, const std::string& text);
    // Each request of a supported version from a client that still accepts
    // work, before its type is matched; `type` may be null.
    static void request(int pid, const char* type);
    // Each reply sent.
    static bool requestOutputEnabled();
    static void requestOutput(int pid, const std::string& text);
    // "add": each resolved path, before registration.
    static void pluginAdd(const std::string& canonicalPath);
    // "remove": each path, before the entitlement check.
    static void pluginRemove(const std::string& path, bool resolved);
    // "ready": each plug-in, before the hold check.
    static void pluginReady(const std::string& uuid);
    // "match": number of candidates found, before filtering.
    static void discoverRaw(std::uint32_t count);
    // The annotation file failed to load or was refused.
    static void dbLoad(const std::string& domain, std::uint64_t code);
};

} // namespace tv
