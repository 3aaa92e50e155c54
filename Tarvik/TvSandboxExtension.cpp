#include "Tarvik/TvSandboxExtension.h"

namespace tv {

TvSandboxExtension::TvSandboxExtension(std::string token, std::shared_ptr<platform::SandboxService> sandbox)
    : sandbox_(std::move(sandbox))
{
    token_.store(Value(std::move(token)));
}

TvSandboxExtension::~TvSandboxExtension()
{
    expel();
}

std::shared_ptr<platform::SandboxService> TvSandboxExtension::service() const
{
    return sandbox_ ? sandbox_ : platform::sandboxService();
}

std::string TvSandboxExtension::token() const
{
    const Value token = token_.load();
    const std::string* text = token.asString();
    return text ? *text : std::string();
}

void TvSandboxExtension::consume()
{
    if (handle_ != 0)
        return;
    auto sandbox = service();
    if (!sandbox)
        return;
    auto handle = sandbox->consumeExtension(token());
    handle_ = handle ? *handle : 0;
}

void TvSandboxExtension::expel()
{
    if (handle_ == 0)
        return;
    if (auto sandbox = service())
        (void)sandbox->releaseExtension(handle_);
    handle_ = 0;
}

} // namespace tv
