#include "tools/tolvar/line_reader.h"

#include <gtest/gtest.h>

#include <sstream>
#include <streambuf>

namespace {

using tolvar::tools::LineReader;

constexpr std::size_t kMost = LineReader::kMaxBytes;

TEST(LineReader, GivesLinesAndTheirNumbers) {
  std::istringstream in("one\n\nthree");
  LineReader lines(in);
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.text(), "one");
  EXPECT_EQ(lines.number(), 1u);
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.text(), "");
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.text(), "three");
  EXPECT_EQ(lines.number(), 3u);
  EXPECT_FALSE(lines.isLonger());
  EXPECT_FALSE(lines.next());
}

TEST(LineReader, AnEndOfLineIsNoLineOfItsOwn) {
  std::istringstream none(""), one("x\n");
  EXPECT_FALSE(LineReader(none).next());
  LineReader lines(one);
  EXPECT_TRUE(lines.next());
  EXPECT_FALSE(lines.next());
}

TEST(LineReader, KeepsNulBytes) {
  std::istringstream in(std::string("a\0b\n", 4));
  LineReader lines(in);
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.text(), std::string("a\0b", 3));
}

TEST(LineReader, KeepsTheBeginningOfALongLineAndGoesOnWithTheNext) {
  const std::string whole(kMost, 'a');
  std::istringstream in(whole + "\n" + whole + "b\nnext\n" + whole + "cd");
  LineReader lines(in);
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.text(), whole);
  EXPECT_FALSE(lines.isLonger());
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.text(), whole);
  EXPECT_TRUE(lines.isLonger());
  ASSERT_TRUE(lines.next());
  EXPECT_EQ(lines.text(), "next");
  EXPECT_FALSE(lines.isLonger());
  ASSERT_TRUE(lines.next());
  EXPECT_TRUE(lines.isLonger());
  EXPECT_FALSE(lines.next());
}

/// A line of 64 MiB that is in no memory.
class VastLine : public std::streambuf {
  int_type underflow() override {
    if (_left-- == 0) return traits_type::eof();
    setg(_bytes, _bytes, _bytes + sizeof _bytes);
    return traits_type::to_int_type(_bytes[0]);
  }

  char _bytes[4096] = {};
  int _left = (64 << 20) / 4096;
};

TEST(LineReader, HoldsNoMoreOfAVastLine) {
  VastLine bytes;
  std::istream in(&bytes);
  LineReader lines(in);
  ASSERT_TRUE(lines.next());
  EXPECT_TRUE(lines.isLonger());
  EXPECT_LE(lines.text().capacity(), 2 * kMost);
}

}  // namespace
