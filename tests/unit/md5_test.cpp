// The library's own MD5: method identities must keep the digests they had,
// so every padding case (a tail that fits the last block, one that does not,
// whole blocks) is checked against published values.

#include "support/md5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace md5_test {

using namespace quarvel;

std::string hexOf(const std::string& text) {
    std::string out;
    for (const uint8_t byte : md5(text.data(), text.size())) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", byte);
        out += pair;
    }
    return out;
}

TEST(Md5, MatchesTheReferenceSuiteAndEveryPaddingCase) {
    struct Case {
        std::string text;
        const char* digest;
    } cases[] = {
        // RFC 1321, appendix A.5.
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // Around the block size: the length still fits the last block (55),
        // needs one more (56, 63), whole blocks (64), and past them.
        {std::string(55, 'x'), "04364420e25c512fd958a70738aa8f72"},
        {std::string(56, 'x'), "668a72d5ba17f08e62dabcafad6db14b"},
        {std::string(63, 'x'), "7dc2ca208106a2f703567bdff99d8981"},
        {std::string(64, 'x'), "c1bb4f81d892b2d57947682aeb252456"},
        {std::string(65, 'x'), "1bc932052302d074bdec39795fe00cf6"},
        {std::string(119, 'x'), "ab347a5f68c8a443cfcddc633f12c24f"},
        {std::string(120, 'x'), "fb98667f98096de92620b64f46e1c5b5"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.digest, hexOf(c.text)) << c.text.size() << " bytes: " << c.text;
}

} // namespace md5_test
