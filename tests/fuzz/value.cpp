// The binary value encoding. A value has several byte forms: dictionary
// entries may come in any order, and encoding writes them in key byte order.
// So decode-then-encode gives back bytes of the same length (only the order
// of entries may differ), and from then on the encoding is a fixed point:
// decode(encode(decode(x))) == decode(x) and encode is idempotent. The
// decoded cost stays within its documented bound. The first byte picks
// whether URLs are allowed (message encoding) or not (frame bodies).
#include "base/ValueCodec.h"
#include "tests/fuzz/FuzzSupport.h"

using namespace tv;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const ValueCodecOptions options{.allowUrl = (data[0] & 1) != 0, .maxDepth = 64};
    std::span<const std::uint8_t> bytes(data + 1, size - 1);
    std::size_t cost = 0;
    auto value = decodeValue(bytes, options, &cost);
    if (!value)
        return 0;
    FUZZ_CHECK(cost <= bytes.size() * kMaxDecodedCostPerByte + kDecodedCostOverhead);
    Bytes once;
    FUZZ_CHECK(!encodeValue(*value, once, options));
    FUZZ_CHECK(once.size() == bytes.size());
    auto again = decodeValue(once, options);
    FUZZ_CHECK(again.ok() && *again == *value);
    Bytes twice;
    FUZZ_CHECK(!encodeValue(*again, twice, options) && twice == once);
    return 0;
}
