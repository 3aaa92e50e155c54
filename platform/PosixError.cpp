#include "platform/PosixError.h"

#include <cstring>
#include <string>

namespace tv::platform {

TvError posixError(int err, std::string_view context)
{
    TvError e;
    e.domain = kPosixErrorDomain;
    e.code = err;
    e.description = std::string(context) + ": " + std::strerror(err);
    return e;
}

} // namespace tv::platform
