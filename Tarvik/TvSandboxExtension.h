// TvSandboxExtension: one sandbox extension token held by the process that
// uses it (a host or a plug-in), consumed into that process's sandbox and
// released again. The daemon issues tokens and never consumes them.
//
// States: issued (handle 0) -> consume() -> consumed (handle set) ->
// expel() -> issued. consume() on a consumed holder and expel() on an
// issued one do nothing; destroying the holder expels first.
//
// Thread-safety: token() may be read from any thread; consume() and expel()
// must not run concurrently on one holder.
#pragma once

#include "base/AtomicValue.h"
#include "platform/security/SandboxService.h"

#include <cstdint>
#include <memory>
#include <string>

namespace tv {

class TvSandboxExtension {
public:
    // `sandbox` null: the process-wide sandbox service, asked when used.
    explicit TvSandboxExtension(std::string token, std::shared_ptr<platform::SandboxService> sandbox = nullptr);
    ~TvSandboxExtension();
    TvSandboxExtension(const TvSandboxExtension&) = delete;
    TvSandboxExtension& operator=(const TvSandboxExtension&) = delete;

    // Consumes the token and keeps the handle the service returned, whatever
    // it is (a failure leaves 0).
    void consume();
    // Releases the grant behind the handle and goes back to 0.
    void expel();

    std::string token() const;
    std::int64_t handle() const { return handle_; }

private:
    std::shared_ptr<platform::SandboxService> service() const;

    AtomicValue token_;
    std::shared_ptr<platform::SandboxService> sandbox_;
    std::int64_t handle_ = 0;
};

} // namespace tv
