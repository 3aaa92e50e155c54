// Typed JSON on hostile text: whatever the reader accepts, the writer's
// text (indented and on one line) reads back as the same value and is then
// a fixed point.
#include "platform/formats/TypedJson.h"
#include "tests/fuzz/FuzzSupport.h"

using namespace tv;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::quietLog();
    auto value = platform::parseTypedJson(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!value)
        return 0;
    for (bool pretty : {true, false}) {
        std::string text = platform::toTypedJson(*value, pretty);
        auto again = platform::parseTypedJson(text);
        FUZZ_CHECK(again.ok() && *again == *value);
        FUZZ_CHECK(platform::toTypedJson(*again, pretty) == text);
    }
    return 0;
}
