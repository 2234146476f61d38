#include "include/code_gap.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string imageOf(const CodeGap& gap) {
  CodeGapEntry entry;
  for (char& c : entry.buffer) c = 'x';
  entry.Set(gap);
  return std::string(entry.buffer, sizeof entry.buffer);
}

TEST(CodeGapEntry, IsIdThenAZeroThenTheTextThenZeros) {
  EXPECT_EQ(imageOf({0x0102030405060708u, "Beijing"}),
            std::string("\x08\x07\x06\x05\x04\x03\x02\x01\0Beijing", 16) + std::string(112, '\0'));
}

TEST(CodeGapEntry, EmptyTextLeavesTheIdAlone) {
  EXPECT_EQ(imageOf({0xFF, ""}), "\xFF" + std::string(127, '\0'));
}

TEST(CodeGapEntry, TextOf119BytesFillsTheEntry) {
  EXPECT_EQ(imageOf({0, std::string(119, 'n')}), std::string(9, '\0') + std::string(119, 'n'));
}

TEST(CodeGapEntry, LongerTextIsCutAtTheEntrysEnd) {
  struct {
    CodeGapEntry entry;
    char guard[16] = {'g', 'u', 'a', 'r', 'd'};
  } guarded;
  guarded.entry.Set({0, std::string(100000, 'n')});
  EXPECT_EQ(std::string(guarded.entry.buffer, 128), std::string(9, '\0') + std::string(119, 'n'));
  EXPECT_STREQ(guarded.guard, "guard");
}

TEST(CodeGapEntry, SecondSetLeavesNothingOfTheFirst) {
  CodeGapEntry entry;
  entry.Set({UINT64_MAX, std::string(119, 'n')});
  entry.Set({1, "a"});
  EXPECT_EQ(std::string(entry.buffer, 128),
            std::string("\x01\0\0\0\0\0\0\0\0a", 10) + std::string(118, '\0'));
}

}  // namespace
