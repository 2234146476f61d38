#include "src/index/index_block.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <utility>
#include <vector>

namespace {

using tolvar::IndexBlock;

constexpr std::size_t kLineWords = IndexBlock::kLineBytes / sizeof(std::uint32_t);

/// A block beside two vectors that hold what it should: words from -1 downwards, lines from 0 on.
class GrowingBlock {
 public:
  explicit GrowingBlock(IndexBlock block) : _block(std::move(block)) {}

  void addWords(std::size_t count) {
    const std::ptrdiff_t lowest = _block.addWords(count);
    ASSERT_EQ(lowest, -static_cast<std::ptrdiff_t>(_words.size() + count));
    for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(_block.word(lowest + i), 0u);
    for (std::size_t i = 0; i < count; ++i) {
      _words.push_back(_next++);
      _block.word(-static_cast<std::ptrdiff_t>(_words.size())) = _words.back();
    }
  }

  void addLine() {
    const std::size_t number = _block.addLine();
    ASSERT_EQ(number, _lines.size());
    for (std::size_t i = 0; i < IndexBlock::kLineBytes; ++i) ASSERT_EQ(_block.line(number)[i], 0);
    std::vector<std::uint32_t>& line = _lines.emplace_back();
    for (std::size_t i = 0; i < kLineWords; ++i) line.push_back(_next++);
    std::memcpy(_block.line(number), line.data(), IndexBlock::kLineBytes);
  }

  void check() {
    ASSERT_EQ(_block.words(), _words.size());
    ASSERT_EQ(_block.lines(), _lines.size());
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(_block.base()) % IndexBlock::kLineBytes, 0u);
    for (std::size_t i = 0; i < _words.size(); ++i)
      ASSERT_EQ(_block.word(-1 - static_cast<std::ptrdiff_t>(i)), _words[i]) << i;
    for (std::size_t i = 0; i < _lines.size(); ++i)
      ASSERT_EQ(std::memcmp(_block.line(i), _lines[i].data(), IndexBlock::kLineBytes), 0) << i;
  }

  IndexBlock& block() { return _block; }
  std::size_t bytesInUse() const {
    return (_words.size() + kLineWords - 1) / kLineWords * IndexBlock::kLineBytes +
           _lines.size() * IndexBlock::kLineBytes;
  }

 private:
  IndexBlock _block;
  std::vector<std::uint32_t> _words;
  std::vector<std::vector<std::uint32_t>> _lines;
  std::uint32_t _next = 1;
};

TEST(IndexBlock, KeepsWhatItHoldsUnderTheSameNumbersHoweverItGrows) {
  std::mt19937 random(5);
  for (const std::size_t room : {0, 1, 40, 5000}) {
    GrowingBlock growing(IndexBlock(room, room / 16));
    for (int step = 0; step < 3000; ++step) {
      if (random() % 3 == 0)
        growing.addWords(random() % 70);
      else
        growing.addLine();
      if (step % 250 == 0) growing.check();
      if (HasFatalFailure()) FAIL() << "step " << step << ", room " << room;
    }
    growing.block().giveBackRoom();
    growing.check();
  }
}

TEST(IndexBlock, GrowsOnHugePagesTooAndStartsWithZeros) {
  GrowingBlock growing(IndexBlock(100, 100));
  for (int i = 0; i < 70000; ++i) growing.addLine();
  for (int i = 0; i < 20; ++i) growing.addWords(40000);
  growing.check();
}

TEST(IndexBlock, HoldsAtMostASixteenthMoreThanIsInUseOnceRoomWasGivenBack) {
  for (const std::size_t lines : {1, 15, 16, 17, 1000}) {
    GrowingBlock growing(IndexBlock(3000, 1000));
    growing.addWords(700);
    for (std::size_t i = 0; i < lines; ++i) growing.addLine();
    growing.block().giveBackRoom();
    EXPECT_GE(growing.block().memoryBytes(), growing.bytesInUse());
    EXPECT_LE(growing.block().memoryBytes(), growing.bytesInUse() * 17 / 16);
    growing.check();
  }
}

TEST(IndexBlock, MovesWithItsMemory) {
  GrowingBlock growing(IndexBlock(16, 1));
  growing.addWords(16);
  growing.addLine();
  const unsigned char* const base = growing.block().base();
  IndexBlock taken = std::move(growing.block());
  EXPECT_EQ(taken.base(), base);
  EXPECT_EQ(taken.word(-16), 16u);
  EXPECT_EQ(taken.line(0)[0], 17);
  EXPECT_EQ(taken.memoryBytes(), 2 * IndexBlock::kLineBytes);
}

}  // namespace
