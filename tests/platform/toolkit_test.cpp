#include "platform/toolkit.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "tests/support/system_address.h"

namespace {

using tolvar_test::systemParses;

using namespace std::string_view_literals;

struct Good {
  std::string_view text;
  std::uint32_t ip;
};

constexpr Good kGood[] = {
    {"0.0.0.0", 0u},
    {"0.0.0.1", 1u},
    {"1.2.3.4", 0x01020304u},
    {"8.8.8.8", 0x08080808u},
    {"9.10.99.100", 0x090A6364u},
    {"127.0.0.1", 0x7F000001u},
    {"128.0.0.0", 0x80000000u},
    {"192.168.10.255", 0xC0A80AFFu},
    {"199.200.249.250", 0xC7C8F9FAu},
    {"255.255.255.255", 0xFFFFFFFFu},
};

constexpr std::string_view kBad[] = {
    ""sv,
    " "sv,
    "."sv,
    "..."sv,
    "1"sv,
    "16909060"sv,
    "1.2"sv,
    "1.2.3"sv,
    "1.2.3."sv,
    ".1.2.3"sv,
    "1..2.3"sv,
    "1.2.3.4."sv,
    ".1.2.3.4"sv,
    "1.2.3.4.5"sv,
    "256.0.0.0"sv,
    "0.0.0.256"sv,
    "1.2.3.300"sv,
    "1.2.3.999"sv,
    "1.2.3.1000"sv,
    "1.2.3.4294967296"sv,
    "01.2.3.4"sv,
    "1.02.3.4"sv,
    "1.2.003.4"sv,
    "1.2.3.00"sv,
    "1.2.3.04"sv,
    " 1.2.3.4"sv,
    "1.2.3.4 "sv,
    "1. 2.3.4"sv,
    "1.2.3.4\n"sv,
    "1.2.3.4\0"sv,
    "1.2\0.3.4"sv,
    "1,2,3,4"sv,
    "-1.2.3.4"sv,
    "+1.2.3.4"sv,
    "0x1.2.3.4"sv,
    "a.b.c.d"sv,
    "1.2.3.4a"sv,
    "1.2.3.4/24"sv,
    "1.2.3.4:80"sv,
    "::1"sv,
    "::ffff:1.2.3.4"sv,
    "localhost"sv,
    "1.2.3.\xEF\xBC\x94"sv,
};

TEST(Toolkit, ReadsDottedQuadsInNumericOrder) {
  for (const Good& good : kGood) EXPECT_EQ(Toolkit::s2ipD(good.text), good.ip) << good.text;
}

TEST(Toolkit, AnythingElseIsZero) {
  for (const std::string_view bad : kBad) EXPECT_EQ(Toolkit::s2ipD(bad), 0u) << bad;
  EXPECT_EQ(Toolkit::s2ipD(std::string_view()), 0u);
}

TEST(Toolkit, TellsTheZeroAddressFromAFault) {
  std::uint32_t ip = 7;
  EXPECT_TRUE(Toolkit::parseIPv4("0.0.0.0", &ip));
  EXPECT_EQ(ip, 0u);
  for (const std::string_view bad : kBad) {
    ip = 7;
    EXPECT_FALSE(Toolkit::parseIPv4(bad, &ip)) << bad;
    EXPECT_EQ(ip, 7u) << bad;
  }
}

TEST(Toolkit, ReadsEveryPartValueInEveryPlace) {
  for (std::uint32_t value = 0; value < 256; ++value) {
    const std::string part = std::to_string(value);
    EXPECT_EQ(Toolkit::s2ipD(part + ".1.1.1"), value << 24 | 0x010101u);
    EXPECT_EQ(Toolkit::s2ipD("1." + part + ".1.1"), 0x01000101u | value << 16);
    EXPECT_EQ(Toolkit::s2ipD("1.1." + part + ".1"), 0x01010001u | value << 8);
    EXPECT_EQ(Toolkit::s2ipD("1.1.1." + part), 0x01010100u | value);
  }
}

TEST(Toolkit, NeverReadsBeyondTheText) {
  // The text ends where the heap block ends, so that the address sanitizer sees one byte too many.
  const std::string whole = "255.255.255.255";
  for (std::size_t size = 1; size <= whole.size(); ++size) {
    char* block = new char[size];
    whole.copy(block, size);
    std::uint32_t ip = 0;
    EXPECT_EQ(Toolkit::parseIPv4({block, size}, &ip), size >= whole.size() - 2) << size;
    delete[] block;
  }
}

TEST(Toolkit, OneWrongLetterIsAsWrongAsTheOperatingSystemFindsIt) {
  std::mt19937 random(5);
  const std::string letters("0123456789./:- \0\xAE\xFF", 18);
  const auto expectSame = [](const std::string& text) {
    std::uint32_t ours = 7;
    std::uint32_t theirs = 7;
    ASSERT_EQ(Toolkit::parseIPv4(text, &ours), systemParses(text, &theirs)) << text;
    ASSERT_EQ(ours, theirs) << text;
  };
  for (int round = 0; round < 1000; ++round) {
    std::string text;
    for (int part = 0; part < 4; ++part) {
      // Parts of one, two and three digits are equally frequent.
      constexpr std::uint32_t kAbove[] = {10, 100, 256};
      text += (part == 0 ? "" : ".") + std::to_string(random() % kAbove[random() % 3]);
    }
    expectSame(text);
    for (std::size_t at = 0; at <= text.size(); ++at) {
      if (at < text.size()) expectSame(std::string(text).erase(at, 1));
      for (const char letter : letters) {
        expectSame(std::string(text).insert(at, 1, letter));
        if (at < text.size()) expectSame(std::string(text).replace(at, 1, 1, letter));
      }
      ASSERT_FALSE(HasFailure());
    }
  }
}

TEST(Toolkit, RandomTextNeverPassesUnlessItIsCanonical) {
  std::mt19937 random(4);
  static constexpr char letters[] = "0123456789..1225";
  for (int round = 0; round < 200000; ++round) {
    std::string text(random() % 17, ' ');
    for (char& letter : text) letter = letters[random() % (sizeof letters - 1)];
    std::uint32_t ip = 0;
    if (!Toolkit::parseIPv4(text, &ip)) continue;
    const std::string canonical = std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 255) +
                                  "." + std::to_string(ip >> 8 & 255) + "." +
                                  std::to_string(ip & 255);
    ASSERT_EQ(text, canonical);
  }
}

}  // namespace
