#include "platform/formats/VlistFileReader.h"

#include "platform/formats/VlistParser.h"

namespace tv::platform {

VlistFileReader systemVlistFileReader()
{
    return [](const std::string& path) { return readVlistFile(path); };
}

} // namespace tv::platform
