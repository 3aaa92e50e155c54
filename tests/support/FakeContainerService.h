// FakeContainerService: a container service that answers every request with
// one fixed path or one fixed error number, and keeps the last request.
#pragma once

#include "platform/PosixError.h"
#include "platform/containers/ContainerService.h"

#include <string>

namespace tv::test {

class FakeContainerService final : public platform::ContainerService {
public:
    static std::shared_ptr<FakeContainerService> failing(int errorNumber)
    {
        auto s = std::make_shared<FakeContainerService>();
        s->errorNumber = errorNumber;
        return s;
    }

    Result<std::string> containerPath(std::uint64_t containerClass, const std::string& identifier, bool create) override
    {
        lastClass = containerClass;
        lastIdentifier = identifier;
        lastCreate = create;
        if (errorNumber)
            return platform::posixError(errorNumber, "container");
        return path;
    }

    std::string path;
    int errorNumber = 0;
    std::uint64_t lastClass = 0;
    std::string lastIdentifier;
    bool lastCreate = false;
};

} // namespace tv::test
