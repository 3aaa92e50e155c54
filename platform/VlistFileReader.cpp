#include "platform/VlistFileReader.h"

#include "platform/Vlist.h"

namespace tv::platform {

VlistFileReader systemVlistFileReader()
{
    return [](const std::string& path) { return readVlistFile(path); };
}

} // namespace tv::platform
