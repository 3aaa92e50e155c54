#include "platform/formats/Base64.h"

#include <openssl/evp.h>

namespace tv::platform {

namespace {

// EVP_*Block take an int length; work in chunks far below INT_MAX that keep
// group boundaries (3 input bytes per 4 characters).
constexpr std::size_t kEncodeChunk = 3u << 20;
constexpr std::size_t kDecodeChunk = 4u << 20;

bool isBase64Char(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

} // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes)
{
    std::string out;
    out.resize((bytes.size() + 2) / 3 * 4 + 1); // EVP_EncodeBlock writes a final NUL
    std::size_t written = 0;
    for (std::size_t pos = 0; pos < bytes.size(); pos += kEncodeChunk) {
        std::size_t n = std::min(kEncodeChunk, bytes.size() - pos);
        int got = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data() + written), bytes.data() + pos,
                                  static_cast<int>(n));
        written += static_cast<std::size_t>(got);
    }
    out.resize(written);
    return out;
}

std::optional<Bytes> base64Decode(std::string_view text, bool skipWhitespace)
{
    // Validate and normalise first: EVP_DecodeBlock itself tolerates stray
    // whitespace at the ends and reports padding as decoded zero bytes.
    std::string clean;
    clean.reserve(text.size() + 3);
    std::size_t padding = 0;
    for (char c : text) {
        if (skipWhitespace && isSpace(c))
            continue;
        if (c == '=') {
            ++padding;
        } else if (padding || !isBase64Char(c)) {
            return std::nullopt;
        }
        clean.push_back(c);
    }
    if (padding > 2)
        return std::nullopt;
    if (padding && clean.size() % 4)
        return std::nullopt;
    if (clean.size() % 4 == 1)
        return std::nullopt;
    while (clean.size() % 4) {
        clean.push_back('=');
        ++padding;
    }

    Bytes out(clean.size() / 4 * 3);
    std::size_t written = 0;
    for (std::size_t pos = 0; pos < clean.size(); pos += kDecodeChunk) {
        std::size_t n = std::min(kDecodeChunk, clean.size() - pos);
        int got = EVP_DecodeBlock(out.data() + written, reinterpret_cast<const unsigned char*>(clean.data() + pos),
                                  static_cast<int>(n));
        if (got < 0)
            return std::nullopt;
        written += static_cast<std::size_t>(got);
    }
    out.resize(written - padding);
    return out;
}

} // namespace tv::platform
