// The vlist reader on hostile documents: whatever it accepts, the writer
// either refuses (values XML cannot carry) or writes a document that reads
// back as the same value and writes again as the same text.
#include "platform/formats/Vlist.h"
#include "tests/fuzz/FuzzSupport.h"

using namespace tv;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::quietLog();
    auto value = platform::parseVlist(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!value)
        return 0;
    auto text = platform::serializeVlist(*value);
    if (!text)
        return 0;
    auto again = platform::parseVlist(*text);
    FUZZ_CHECK(again.ok() && *again == *value);
    auto textAgain = platform::serializeVlist(*again);
    FUZZ_CHECK(textAgain.ok() && *textAgain == *text);
    return 0;
}
