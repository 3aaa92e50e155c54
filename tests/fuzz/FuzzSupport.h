// Shared by the fuzz targets: a log that formats every line (so that the
// formatting of hostile values is exercised too) and drops it, installed
// once per process.
#pragma once

#include "platform/log/SystemLog.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tv::fuzz {

class DroppingLog final : public platform::SystemLog {
public:
    bool enabled(platform::LogLevel) const override { return true; }
    bool redactsPrivate() const override { return false; }
    void write(const platform::LogRecord&) override {}
};

inline void quietLog()
{
    static const bool installed = (platform::setSystemLog(std::make_shared<DroppingLog>()), true);
    (void)installed;
}

// A broken invariant: abort so that libFuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                                          \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            __builtin_fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__);                       \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (0)

} // namespace tv::fuzz
