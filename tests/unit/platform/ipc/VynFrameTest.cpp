#include "platform/ipc/VynFrame.h"

#include "base/ValueCodec.h"

#include <gtest/gtest.h>

namespace tv::platform {
namespace {

// The transport reserves kMaxDecodedCostPerByte per encoded byte before it
// decodes a request; no body may cost more than that, however it is built.
// (Frames round trip through the transport, LinuxVynServiceTest; random
// mutations of them are the fuzz target's.)
TEST(VynFrameTest, DecodedCostIsBoundedByTheEncodedSize)
{
    // {"<key>": [element × n]}
    auto repeat = [](char key, const std::string& element, std::uint32_t n) {
        std::string b{'\x0b', 1, 0, 0, 0, 1, 0, 0, 0, key, '\x0a'};
        for (int i = 0; i < 4; ++i)
            b.push_back(static_cast<char>(n >> (8 * i)));
        for (std::uint32_t k = 0; k < n; ++k)
            b += element;
        return Bytes(b.begin(), b.end());
    };
    std::string keys("\x0b\x10\x27\0\0", 5); // 10000 entries "0".."9999" -> true
    for (int k = 0; k < 10000; ++k) {
        std::string key = std::to_string(k);
        keys += static_cast<char>(key.size());
        keys.append(3, '\0');
        keys += key;
        keys += '\x02';
    }
    Bytes manyKeys(keys.begin(), keys.end());
    struct Case {
        const char* name;
        Bytes body;
        std::size_t atLeast; // the decoded form is at least this large
    };
    const Case cases[] = {
        {"booleans", repeat('b', std::string("\x02", 1), 100000), 100000 * sizeof(Value)},
        {"short strings", repeat('s', std::string("\x06\x01\0\0\0x", 6), 50000),
         50000 * sizeof(Value)},
        {"one-element arrays", repeat('a', std::string("\x0a\x01\0\0\0\x01", 6), 50000),
         50000 * 2 * sizeof(Value)},
        {"many keys", manyKeys, 10000 * sizeof(Value)},
    };
    VynFrame::Header header;
    header.messageId = 1;
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::size_t cost = 0;
        auto m = VynFrame::decodeBody(header, tc.body, 64, SIZE_MAX, &cost);
        ASSERT_TRUE(m.ok()) << m.error().localizedDescription();
        EXPECT_GE(cost, tc.atLeast);
        EXPECT_LE(cost, tc.body.size() * kMaxDecodedCostPerByte + kDecodedCostOverhead);
        // One byte less than it costs is refused, before it is all built.
        auto refused = VynFrame::decodeBody(header, tc.body, 64, cost - 1);
        ASSERT_FALSE(refused.ok());
        EXPECT_NE(refused.error().localizedDescription().find("decoded value larger than"), std::string::npos);
    }
}

} // namespace
} // namespace tv::platform
