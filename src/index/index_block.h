#pragma once

#include <cstddef>
#include <cstdint>

namespace tolvar {

/// The one piece of memory that a RangeIndex lies in, so that a lookup needs to know one address.
/// From a base inside it words of 4 bytes are added downwards and lines of 64 bytes upwards. Both
/// are told by their distance from the base, which stays the same while either grows.
///
/// Confined to one thread while it grows. Adding moves the block at times: addresses hold until
/// then. Where adding throws, nothing was added.
class IndexBlock {
 public:
  static constexpr std::size_t kLineBytes = 64;

  IndexBlock() noexcept = default;

  /// Empty, with room for so many words and lines. Throws std::bad_alloc.
  IndexBlock(std::size_t wordRoom, std::size_t lineRoom);
  ~IndexBlock();
  IndexBlock(IndexBlock&& other) noexcept { swap(other); }
  IndexBlock& operator=(IndexBlock&& other) noexcept {
    swap(other);
    return *this;
  }
  IndexBlock(const IndexBlock&) = delete;
  IndexBlock& operator=(const IndexBlock&) = delete;

  /// Where line 0 begins and the word with number -1 ends; a multiple of kLineBytes.
  unsigned char* base() const noexcept { return _base; }

  std::size_t words() const noexcept { return _words; }
  std::size_t lines() const noexcept { return _lines; }

  /// Word `number`, from -words() to -1.
  std::uint32_t& word(std::ptrdiff_t number) noexcept {
    return reinterpret_cast<std::uint32_t*>(_base)[number];
  }

  /// Bytes of line `number`, which is below lines().
  unsigned char* line(std::size_t number) noexcept { return _base + number * kLineBytes; }

  /// Adds words, all 0; answers the number of the lowest. Throws std::bad_alloc.
  std::ptrdiff_t addWords(std::size_t count);

  /// Adds a line of zeros; answers its number. Throws std::bad_alloc.
  std::size_t addLine();

  /// Gives room that is not in use back, where it is enough to be worth copying the rest. Throws
  /// std::bad_alloc.
  void giveBackRoom();

  /// Memory held, in bytes.
  std::size_t memoryBytes() const noexcept { return (_roomBelow + _roomAbove) * kLineBytes; }

 private:
  void swap(IndexBlock& other) noexcept;
  void relocate(std::size_t roomBelow, std::size_t roomAbove);

  unsigned char* _base = nullptr;
  std::size_t _words = 0;
  std::size_t _lines = 0;
  std::size_t _roomBelow = 0;  ///< for words, in lines
  std::size_t _roomAbove = 0;  ///< for lines
};

}  // namespace tolvar
