#include "base/InternalInconsistency.h"

namespace tv {

void raiseInternalInconsistency(const std::string& message)
{
    throw TvInternalInconsistency(message);
}

} // namespace tv
