// Fakes for who a client is: its executable path and its entitlements.
#pragma once

#include "platform/security/CodeSigningService.h"
#include "platform/PosixError.h"
#include "platform/process/ProcessInfo.h"

#include <cerrno>
#include <functional>
#include <map>
#include <string>

namespace tv::test {

class FakeProcessInfo final : public platform::ProcessInfo {
public:
    std::map<pid_t, std::string> paths;

    Result<std::string> executablePath(pid_t pid, int) const override
    {
        auto it = paths.find(pid);
        if (it == paths.end())
            return platform::posixError(ESRCH, "no process " + std::to_string(pid));
        return it->second;
    }
};

class FakeCodeSigningService final : public platform::CodeSigningService {
public:
    // Entitlements by pid; a pid listed in `broken` makes every lookup fail.
    std::map<pid_t, Value> entitlements;
    std::map<pid_t, bool> broken;
    // Runs at every lookup when set (a test makes it throw).
    std::function<void()> onLookup;

    std::shared_ptr<platform::CodeSigningTask> createTask(const platform::AuditToken& token) override
    {
        return std::make_shared<Task>(token.pid);
    }

    Value entitlementValueForKey(const platform::CodeSigningTask& task, std::string_view key,
                                 MaybeError* error) override
    {
        pid_t pid = static_cast<const Task&>(task).pid;
        if (onLookup)
            onLookup();
        if (broken.count(pid)) {
            if (error)
                *error = platform::posixError(ESRCH, "no signature");
            return Value();
        }
        return entitlements[pid][key];
    }

    Result<Value> entitlementsOfExecutable(const std::string&) override { return Value::emptyDictionary(); }

private:
    struct Task final : platform::CodeSigningTask {
        explicit Task(pid_t p) : pid(p) {}
        std::string description() const override { return "<task " + std::to_string(pid) + ">"; }
        pid_t pid;
    };
};

} // namespace tv::test
