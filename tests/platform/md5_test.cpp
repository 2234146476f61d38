#include "platform/md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

namespace {

using qel::ZU_MD5;

struct KnownAnswer {
  std::string message;
  const char* digest;
};

// RFC 1321, appendix A.5.
const KnownAnswer kRfc1321[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"1234567890123456789012345678901234567890123456789012345678901234567890"
     "1234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

// Lengths around the padding's block boundaries; `head -c N /dev/zero | tr '\0' x | md5sum`.
const KnownAnswer kPadding[] = {
    {std::string(55, 'x'), "04364420e25c512fd958a70738aa8f72"},
    {std::string(56, 'x'), "668a72d5ba17f08e62dabcafad6db14b"},
    {std::string(57, 'x'), "693037871c4a9d3d8685018905cb530a"},
    {std::string(63, 'x'), "7dc2ca208106a2f703567bdff99d8981"},
    {std::string(64, 'x'), "c1bb4f81d892b2d57947682aeb252456"},
    {std::string(65, 'x'), "1bc932052302d074bdec39795fe00cf6"},
    {std::string(119, 'x'), "ab347a5f68c8a443cfcddc633f12c24f"},
    {std::string(120, 'x'), "fb98667f98096de92620b64f46e1c5b5"},
    {std::string(128, 'x'), "d69cb61a6ee87200676eb0d4b90edbcb"},
    {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
};

TEST(Md5, AnswersThePublishedTestSuite) {
  for (const KnownAnswer& known : kRfc1321)
    EXPECT_EQ(ZU_MD5::md5str(known.message), known.digest) << known.message;
}

TEST(Md5, PadsRightAroundBlockBoundaries) {
  for (const KnownAnswer& known : kPadding)
    EXPECT_EQ(ZU_MD5::md5str(known.message), known.digest) << known.message.size();
}

TEST(Md5, IsIndependentOfHowTheMessageIsCut) {
  std::mt19937 random(20120704);
  for (int round = 0; round < 300; ++round) {
    std::string message(random() % 700, '\0');
    for (char& byte : message) byte = static_cast<char>(random());
    ZU_MD5 digest;
    for (std::size_t at = 0; at < message.size();) {
      const std::size_t size = std::min<std::size_t>(random() % 130, message.size() - at);
      digest.update(message.data() + at, size);
      at += size;
    }
    ASSERT_EQ(digest.finishHex(), ZU_MD5::md5str(message)) << "round " << round;
  }
}

TEST(Md5, TakesEmptyPiecesWithoutData) {
  ZU_MD5 digest;
  digest.update(nullptr, 0);
  digest.update("ab", 2);
  digest.update(nullptr, 0);
  digest.update("c", 1);
  EXPECT_EQ(digest.finishHex(), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Md5, GivesTheDigestAsBytesToo) {
  ZU_MD5 digest;
  digest.update("abc", 3);
  const std::array<std::uint8_t, 16> expected = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2, 0x4f, 0xb0,
                                                 0xd6, 0x96, 0x3f, 0x7d, 0x28, 0xe1, 0x7f, 0x72};
  EXPECT_EQ(digest.finish(), expected);
}

}  // namespace
