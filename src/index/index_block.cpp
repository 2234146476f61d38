#include "src/index/index_block.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/huge_pages.h"

namespace tolvar {
namespace {

struct alignas(IndexBlock::kLineBytes) Line {
  unsigned char bytes[IndexBlock::kLineBytes];
};

using Allocator = qel::HugePageAllocator<Line>;

constexpr std::size_t kLineWords = IndexBlock::kLineBytes / sizeof(std::uint32_t);

/// Room that is not needed stays when it is at most this part of what is.
constexpr std::size_t kWorthACopy = 16;

constexpr std::size_t linesOfWords(std::size_t words) {
  return (words + kLineWords - 1) / kLineWords;
}

}  // namespace

IndexBlock::IndexBlock(std::size_t wordRoom, std::size_t lineRoom) {
  relocate(linesOfWords(wordRoom), lineRoom);
}

IndexBlock::~IndexBlock() {
  if (_base == nullptr) return;
  auto* const first = reinterpret_cast<Line*>(_base) - _roomBelow;
  Allocator().deallocate(first, _roomBelow + _roomAbove);
}

std::ptrdiff_t IndexBlock::addWords(std::size_t count) {
  const std::size_t needed = linesOfWords(_words + count);
  if (needed > _roomBelow) relocate(std::max(needed, 2 * _roomBelow), _roomAbove);
  _words += count;
  const auto lowest = -static_cast<std::ptrdiff_t>(_words);
  std::memset(&word(lowest), 0, count * sizeof(std::uint32_t));
  return lowest;
}

std::size_t IndexBlock::addLine() {
  if (_lines == _roomAbove) relocate(_roomBelow, std::max<std::size_t>(_lines + 1, 2 * _roomAbove));
  std::memset(line(_lines), 0, kLineBytes);
  return _lines++;
}

void IndexBlock::giveBackRoom() {
  const std::size_t used = linesOfWords(_words) + _lines;
  if (_roomBelow + _roomAbove - used > used / kWorthACopy) relocate(linesOfWords(_words), _lines);
}

void IndexBlock::swap(IndexBlock& other) noexcept {
  std::swap(_base, other._base);
  std::swap(_words, other._words);
  std::swap(_lines, other._lines);
  std::swap(_roomBelow, other._roomBelow);
  std::swap(_roomAbove, other._roomAbove);
}

/// Takes what is in use to memory with so much room.
void IndexBlock::relocate(std::size_t roomBelow, std::size_t roomAbove) {
  IndexBlock next;
  next._base = reinterpret_cast<unsigned char*>(Allocator().allocate(roomBelow + roomAbove)) +
               roomBelow * kLineBytes;
  next._roomBelow = roomBelow;
  next._roomAbove = roomAbove;
  next._words = _words;
  next._lines = _lines;
  if (_base != nullptr) {
    const std::size_t below = _words * sizeof(std::uint32_t);
    std::memcpy(next._base - below, _base - below, below + _lines * kLineBytes);
  }
  swap(next);
}

}  // namespace tolvar
