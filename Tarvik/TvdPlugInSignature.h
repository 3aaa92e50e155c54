// TvdPlugInSignature: the code-signature facts of a plug-in, a 20-byte
// digest and a requirement text.
//
// A placeholder: no signature is read. Every object made by
// initWithURLError() carries the requirement "dummy requirement" and a
// digest that no other object shares (the SHA-1 of a fresh random UUID's
// text), so that nothing can come to rely on two plug-ins having equal
// signatures. Plug-in records get real values only from a plug-in form.
//
// Thread-safe: both properties are read and written atomically.
#pragma once

#include "base/TvError.h"
#include "base/Value.h"

#include <atomic>
#include <memory>
#include <string>

namespace tv {

class TvdPlugInSignature {
public:
    // Never fails: `url` and `error` are not consulted (`*error` is left
    // untouched).
    static std::shared_ptr<TvdPlugInSignature> initWithURLError(const Value& url, TvError* error);

    TvdPlugInSignature(Bytes sighash, std::string requirement);

    Bytes sighash() const { return *sighash_.load(); }
    void setSighash(Bytes sighash);
    std::string requirement() const { return *requirement_.load(); }
    void setRequirement(std::string requirement);

private:
    std::atomic<std::shared_ptr<const Bytes>> sighash_;
    std::atomic<std::shared_ptr<const std::string>> requirement_;
};

} // namespace tv
