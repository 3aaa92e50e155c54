// VynFrame: one frame of the IPC stream protocol.
//
// A frame is a fixed 24-byte header followed by a body of the length the
// header gives. All integers are little-endian.
//
//   offset size  field
//   0      1     format, always 0x01
//   1      1     flags: bit 0 = the sender expects a reply; other bits zero
//   2      2     reserved, zero
//   4      4     body length in bytes
//   8      8     message id, chosen by the sender, never 0
//   16     8     for a reply, the message id of the request it answers; else 0
//
// The body is one value (a dictionary, as a rule) in the binary value encoding (ValueCodec) with
// URLs refused. docs/wire-format.md describes the whole layout.
//
// Parsing treats its input as hostile: any deviation is an error value, and
// the body length is known (and can be checked against a limit) before any
// room is made for the body.
#pragma once

#include "base/Result.h"
#include "platform/ipc/Message.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace tv::platform {

class VynFrame {
public:
    static constexpr std::size_t kHeaderSize = 24;
    static constexpr std::uint8_t kFormat = 0x01;
    static constexpr std::uint8_t kFlagReplyExpected = 0x01;

    struct Header {
        std::uint32_t bodyLength = 0;
        std::uint64_t messageId = 0;
        std::uint64_t replyTo = 0;
        bool replyExpected = false;

        std::size_t frameSize() const { return kHeaderSize + bodyLength; }
    };

    // Fails for an unknown format byte, unknown flags, non-zero reserved
    // bytes or a zero message id.
    static Result<Header> parseHeader(std::span<const std::uint8_t, kHeaderSize> bytes);
    static void writeHeader(const Header& header, std::uint8_t* out);

    // A whole frame for `message`: its body, its reply-to id and the given
    // reply-expected flag. The message id is left 0 for the sender to fill in
    // with setMessageId() once it knows the frame's place in the stream.
    // Fails when the body holds a URL, nests deeper than `maxDepth` or is
    // larger than a frame can say.
    static Result<Bytes> encode(const Message& message, bool replyExpected, std::size_t maxDepth);
    static void setMessageId(Bytes& frame, std::uint64_t id);

    // The message a frame carries. Fails when the body is not exactly one
    // well-formed value within `maxDepth`. A body of another kind than a
    // dictionary is well-formed: the receiver's handler decides what to do
    // with it.
    // `maxDecodedBytes` bounds the memory of the decoded message; its cost
    // (ValueCodec's decodedCost) goes to `decodedBytes` when given.
    static Result<Message> decodeBody(const Header& header, std::span<const std::uint8_t> body, std::size_t maxDepth,
                                      std::size_t maxDecodedBytes = SIZE_MAX, std::size_t* decodedBytes = nullptr);
};

} // namespace tv::platform
