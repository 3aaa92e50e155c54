#include "base/TvError.h"

namespace tv {

std::string TvError::localizedDescription() const
{
    if (description)
        return *description;
    return "The operation couldn't be completed. (" + domain + " error " + std::to_string(code) + ".)";
}

TvError makeError(std::int64_t code, std::optional<std::string> description)
{
    TvError e;
    e.code = code;
    e.description = std::move(description);
    return e;
}

} // namespace tv
