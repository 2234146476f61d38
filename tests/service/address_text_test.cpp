#include "service/address_text.h"

#include <gtest/gtest.h>

namespace tolvar::service {
namespace {

TEST(AddressText, ReadsDottedQuadsAndIntegers) {
  EXPECT_EQ(parseAddress("1.2.3.4"), 0x01020304u);
  EXPECT_EQ(parseAddress("16909060"), 0x01020304u);
  EXPECT_EQ(parseAddress("0"), 0u);
  EXPECT_EQ(parseAddress("0.0.0.0"), 0u);
  EXPECT_EQ(parseAddress("4294967295"), 0xFFFFFFFFu);
  EXPECT_EQ(parseAddress("255.255.255.255"), 0xFFFFFFFFu);
}

TEST(AddressText, RefusesEverythingElse) {
  for (const char* text :
       {"", "4294967296", "99999999999999999999", "-1", "+1", "01", "0x10", "1.2.3", "1.2.3.256",
        "1.2.3.04", "1.2.3.4 ", "1e3", "::1", "localhost"}) {
    EXPECT_FALSE(parseAddress(text).has_value()) << text;
  }
}

TEST(AddressText, ReadsNetworks) {
  const auto all = parseNetwork("0.0.0.0/0");
  ASSERT_TRUE(all.has_value());
  EXPECT_EQ(all->hostMask, 0xFFFFFFFFu);
  const auto one = parseNetwork("1.2.3.4/32");
  ASSERT_TRUE(one.has_value());
  EXPECT_EQ(one->address, 0x01020304u);
  EXPECT_EQ(one->hostMask, 0u);
  EXPECT_EQ(parseNetwork("10.0.0.0/8")->hostMask, 0x00FFFFFFu);
}

TEST(AddressText, RefusesWhatIsNoNetwork) {
  for (const char* text : {"", "/", "1.2.3.4", "1.2.3.4/", "1.2.3.4/33", "1.2.3.4/08", "1.2.3.4/-1",
                           "16909060/8", "::/0"})
    EXPECT_FALSE(parseNetwork(text).has_value()) << text;
}

TEST(AddressText, WritesDottedQuads) {
  EXPECT_EQ(formatIPv4(0), "0.0.0.0");
  EXPECT_EQ(formatIPv4(0x01020304), "1.2.3.4");
  EXPECT_EQ(formatIPv4(0xFFFFFFFF), "255.255.255.255");
}

}  // namespace
}  // namespace tolvar::service
