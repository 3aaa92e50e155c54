// CodeSigningService: what the code signature of a connected process grants
// it (its entitlements).
//
// A task stands for one process as identified by a connection's audit token.
// Its entitlements are taken once, when the task is made: a process cannot
// change its executable, and so its signature, while it stays connected, and
// a snapshot keeps every answer given to one connection consistent even if
// the files behind it change meanwhile.
//
// Thread-safety: every operation may be called from any thread; a task may
// be shared between threads. No callbacks.
#pragma once

#include "base/Result.h"
#include "base/Value.h"
#include "platform/ipc/VynConnection.h"

#include <memory>
#include <string>
#include <string_view>

namespace tv::platform {

// The code-signing facts of one process. Opaque to everything but the
// service that made it.
class CodeSigningTask {
public:
    virtual ~CodeSigningTask() = default;
    virtual std::string description() const = 0;

protected:
    CodeSigningTask() = default;
};

class CodeSigningService {
public:
    virtual ~CodeSigningService() = default;

    // Never null: when the process's signature cannot be determined, the
    // task answers every lookup with an error.
    virtual std::shared_ptr<CodeSigningTask> createTask(const AuditToken& token) = 0;

    // The value of entitlement `key` for the task's process; null when it
    // has no such entitlement. When the signature could not be determined,
    // `*error` (when `error` is not null) is set and null is returned; on success `*error`
    // is left untouched.
    virtual Value entitlementValueForKey(const CodeSigningTask& task, std::string_view key,
                                         MaybeError* error) = 0;

    // Every entitlement granted to the executable at `path`, as a dictionary
    // (empty when none is granted). Used where no process is at hand, for
    // example for a plug-in's registry record. Fails only when nothing can
    // be said about the executable.
    virtual Result<Value> entitlementsOfExecutable(const std::string& path) = 0;
};

} // namespace tv::platform
