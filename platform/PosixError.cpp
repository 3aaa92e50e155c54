#include "platform/PosixError.h"

#include <cstring>
#include <string>

namespace tv::platform {

TvError posixError(int errnum, std::string_view what)
{
    TvError e;
    e.domain = kPosixErrorDomain;
    e.code = errnum;
    e.description = std::string(what) + ": " + std::strerror(errnum);
    return e;
}

} // namespace tv::platform
