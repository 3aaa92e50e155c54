#include "Tarvik/TvdPlugInSignature.h"

#include "base/Uuid.h"
#include "platform/security/Digest.h"

namespace tv {

std::shared_ptr<TvdPlugInSignature> TvdPlugInSignature::initWithURLError(const Value&, TvError*)
{
    const std::string text = Uuid::random().string();
    const platform::Sha1Digest digest = platform::sha1(
        std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
    return std::make_shared<TvdPlugInSignature>(Bytes(digest.begin(), digest.end()), "dummy requirement");
}

TvdPlugInSignature::TvdPlugInSignature(Bytes sighash, std::string requirement)
    : sighash_(std::make_shared<const Bytes>(std::move(sighash))),
      requirement_(std::make_shared<const std::string>(std::move(requirement)))
{
}

void TvdPlugInSignature::setSighash(Bytes sighash)
{
    sighash_.store(std::make_shared<const Bytes>(std::move(sighash)));
}

void TvdPlugInSignature::setRequirement(std::string requirement)
{
    requirement_.store(std::make_shared<const std::string>(std::move(requirement)));
}

} // namespace tv
