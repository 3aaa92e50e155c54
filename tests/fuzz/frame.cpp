// The IPC frame decoder on a stream of frames as a daemon reads them: each
// header is parsed, a frame within the request limit is decoded with the
// quota the connection reserves for it, and what decodes must cost no more
// than that reservation and survive a re-encoding exactly.
#include "base/ValueCodec.h"
#include "platform/ipc/VynFrame.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstring>

using namespace tv;
using platform::VynFrame;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t kMaxFrame = 1 << 20, kDepth = 64;
    while (size >= VynFrame::kHeaderSize) {
        auto header = VynFrame::parseHeader(std::span<const std::uint8_t, VynFrame::kHeaderSize>(data, VynFrame::kHeaderSize));
        if (!header || header->frameSize() > kMaxFrame || header->frameSize() > size)
            return 0;
        std::uint8_t rewritten[VynFrame::kHeaderSize];
        VynFrame::writeHeader(*header, rewritten);
        FUZZ_CHECK(std::memcmp(rewritten, data, VynFrame::kHeaderSize) == 0);

        std::size_t reserve = header->bodyLength * kMaxDecodedCostPerByte + kDecodedCostOverhead, cost = 0;
        auto message = VynFrame::decodeBody(*header, {data + VynFrame::kHeaderSize, header->bodyLength}, kDepth,
                                            reserve, &cost);
        if (!message)
            return 0;
        FUZZ_CHECK(cost <= reserve);
        auto frame = VynFrame::encode(*message, header->replyExpected, kDepth);
        FUZZ_CHECK(frame.ok() && frame->size() == header->frameSize());
        VynFrame::setMessageId(*frame, header->messageId);
        auto again = VynFrame::parseHeader(std::span<const std::uint8_t, VynFrame::kHeaderSize>(frame->data(), VynFrame::kHeaderSize));
        FUZZ_CHECK(again.ok() && again->messageId == header->messageId && again->replyTo == header->replyTo);
        auto body = VynFrame::decodeBody(*again, {frame->data() + VynFrame::kHeaderSize, again->bodyLength}, kDepth);
        FUZZ_CHECK(body.ok() && body->body() == message->body());
        data += header->frameSize();
        size -= header->frameSize();
    }
    return 0;
}
