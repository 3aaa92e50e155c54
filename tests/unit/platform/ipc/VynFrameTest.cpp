#include "platform/ipc/VynFrame.h"

#include "base/ValueCodec.h"
#include "tests/support/Mutate.h"

#include <gtest/gtest.h>

namespace tv::platform {
namespace {

Message sample()
{
    Message m(Value{{"request", "match"},
                    {"version", Value(std::uint64_t{3})},
                    {"rules", Value{{"KoExtensionPointIdentifier", "com.example.share"}, {"n", Value(-4)}}},
                    {"uuids", Value(Array{Value(Uuid::random()), Value(Uuid::random())})},
                    {"blob", Value::data({1, 2, 3})},
                    {"when", Value(Date::fromSeconds(1790000000))}});
    return m;
}

// Decodes a whole frame the way the transport does: header first (checked
// before anything is allocated for the body), then the body.
Result<Message> decodeFrame(const Bytes& frame)
{
    if (frame.size() < VynFrame::kHeaderSize)
        return makeError(4, "short");
    auto header = VynFrame::parseHeader(std::span<const std::uint8_t, VynFrame::kHeaderSize>(frame.data(), 24));
    if (!header)
        return header.error();
    if (frame.size() != header->frameSize())
        return makeError(4, "length mismatch");
    return VynFrame::decodeBody(*header, std::span(frame.data() + 24, header->bodyLength), 64);
}

TEST(VynFrameTest, RoundTripsAndSurvivesRandomMutations)
{
    Message m = sample();
    m.setReplyTo(0);
    auto frame = VynFrame::encode(m, true, 64);
    ASSERT_TRUE(frame.ok());
    VynFrame::setMessageId(*frame, 77);
    auto back = decodeFrame(*frame);
    ASSERT_TRUE(back.ok()) << back.error().localizedDescription();
    EXPECT_EQ(back->body(), m.body());
    EXPECT_EQ(back->messageId(), 77u);
    EXPECT_TRUE(back->expectsReply());

    // Every mutation decodes to a message or an error; nothing crashes, and
    // (under the sanitizers) nothing reads out of bounds.
    std::string valid(frame->begin(), frame->end());
    std::string alphabet("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\xFF\x7F\x80", 16);
    std::mt19937 rng(2026);
    int decoded = 0;
    for (int i = 0; i < 5000; ++i) {
        std::string doc = test::mutate(valid, rng, alphabet);
        Bytes bytes(doc.begin(), doc.end());
        auto r = decodeFrame(bytes);
        decoded += r.ok();
        if (!r.ok()) {
            EXPECT_FALSE(r.error().localizedDescription().empty());
        }
    }
    EXPECT_LT(decoded, 5000);
}

// The transport reserves kMaxDecodedCostPerByte per encoded byte before it
// decodes a request; no body may cost more than that, however it is built.
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
