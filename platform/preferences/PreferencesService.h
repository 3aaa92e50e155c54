// PreferencesService: named preferences domains of the current user on this
// host. A domain is a dictionary of keys to values, written by
// administrators and other programs.
//
// Values are cached per domain: copyValue() answers from the cache, and
// synchronize() picks up what other processes have written since. A domain
// whose backing store is missing, unreadable or malformed reads as empty (the
// reason is returned by synchronize()).
//
// Thread-safety: every operation may be called from any thread. No callbacks.
#pragma once

#include "base/TvError.h"
#include "base/Value.h"

#include <string>

namespace tv::platform {

class PreferencesService {
public:
    virtual ~PreferencesService() = default;

    // Brings the cached contents of `domain` up to date with its backing
    // store. Returns why the domain reads as empty when it could not be read
    // (a missing domain is not an error), else none. A domain name that is
    // empty, starts with "." or contains "/" gives EINVAL.
    virtual MaybeError synchronize(const std::string& domain) = 0;

    // The value of `key` in `domain` as last synchronised (a domain never
    // synchronised is synchronised first), or null when not set.
    virtual Value copyValue(const std::string& domain, const std::string& key) = 0;
};

} // namespace tv::platform
