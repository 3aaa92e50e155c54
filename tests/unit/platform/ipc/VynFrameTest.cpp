#include "platform/ipc/VynFrame.h"

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

} // namespace
} // namespace tv::platform
