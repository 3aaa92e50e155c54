#include "platform/security/Digest.h"

#include <gtest/gtest.h>
#include <string>

namespace tv::platform {
namespace {

std::string hex(const Sha1Digest& digest)
{
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (std::uint8_t byte : digest) {
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

std::string sha1Hex(std::string_view text)
{
    return hex(sha1(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size())));
}

TEST(DigestTest, Sha1MatchesPublishedVectors)
{
    EXPECT_EQ(sha1Hex(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1Hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
}

} // namespace
} // namespace tv::platform
