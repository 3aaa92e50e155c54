#include "platform/ipc/VynFrame.h"

#include "base/ValueCodec.h"

#include <limits>

namespace tv::platform {

namespace {

// Transport errors use the protocol's "malformed request" code.
constexpr std::int64_t kMalformed = 4;

std::uint64_t readLE(const std::uint8_t* p, int n)
{
    std::uint64_t v = 0;
    for (int i = 0; i < n; ++i)
        v |= static_cast<std::uint64_t>(p[i]) << (8 * i);
    return v;
}

void writeLE(std::uint8_t* p, std::uint64_t v, int n)
{
    for (int i = 0; i < n; ++i)
        p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

} // namespace

Result<VynFrame::Header> VynFrame::parseHeader(std::span<const std::uint8_t, kHeaderSize> bytes)
{
    const std::uint8_t* p = bytes.data();
    if (p[0] != kFormat)
        return makeError(kMalformed, "unknown frame format " + std::to_string(p[0]));
    if ((p[1] & ~kFlagReplyExpected) != 0)
        return makeError(kMalformed, "unknown frame flags " + std::to_string(p[1]));
    if (p[2] != 0 || p[3] != 0)
        return makeError(kMalformed, "reserved header bytes are not zero");
    Header h;
    h.replyExpected = (p[1] & kFlagReplyExpected) != 0;
    h.bodyLength = static_cast<std::uint32_t>(readLE(p + 4, 4));
    h.messageId = readLE(p + 8, 8);
    h.replyTo = readLE(p + 16, 8);
    if (h.messageId == 0)
        return makeError(kMalformed, "frame without a message id");
    return h;
}

void VynFrame::writeHeader(const Header& h, std::uint8_t* out)
{
    out[0] = kFormat;
    out[1] = h.replyExpected ? kFlagReplyExpected : 0;
    out[2] = 0;
    out[3] = 0;
    writeLE(out + 4, h.bodyLength, 4);
    writeLE(out + 8, h.messageId, 8);
    writeLE(out + 16, h.replyTo, 8);
}

Result<Bytes> VynFrame::encode(const Message& message, bool replyExpected, std::size_t maxDepth)
{
    Bytes frame(kHeaderSize);
    if (auto err = encodeValue(message.body(), frame, ValueCodecOptions{.allowUrl = false, .maxDepth = maxDepth}))
        return *err;
    std::size_t bodyLength = frame.size() - kHeaderSize;
    if (bodyLength > std::numeric_limits<std::uint32_t>::max())
        return makeError(kMalformed, "message body too large for a frame");
    Header h;
    h.bodyLength = static_cast<std::uint32_t>(bodyLength);
    h.replyTo = message.replyTo();
    h.replyExpected = replyExpected;
    writeHeader(h, frame.data());
    return frame;
}

void VynFrame::setMessageId(Bytes& frame, std::uint64_t id)
{
    writeLE(frame.data() + 8, id, 8);
}

Result<Message> VynFrame::decodeBody(const Header& header, std::span<const std::uint8_t> body, std::size_t maxDepth,
                                     std::size_t maxDecodedBytes, std::size_t* decodedBytes)
{
    auto value = decodeValue(
        body, ValueCodecOptions{.allowUrl = false, .maxDepth = maxDepth, .maxDecodedBytes = maxDecodedBytes},
        decodedBytes);
    if (!value)
        return value.error();
    Message m(std::move(value).value());
    m.setMessageId(header.messageId);
    m.setExpectsReply(header.replyExpected);
    m.setReplyTo(header.replyTo);
    return m;
}

} // namespace tv::platform
