#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "src/index/range_index.h"
#include "src/index/tuple_numbers.h"

namespace tolvar {

/// Turns sorted ranges into a RangeIndex, one /16 bucket at a time, so that beside the index itself
/// it holds one bucket's break points, and the numbers of the ranges' tuples. Confined to one
/// thread.
class RangeIndexBuilder {
 public:
  /// `ranges` outlive the builder.
  explicit RangeIndexBuilder(std::span<const ravel::IPProperty> ranges);

  /// The index; the builder is used up. Throws std::bad_alloc and std::length_error.
  RangeIndex build();

 private:
  /// An address's low 16 bits and the tuple that holds from there on.
  struct Break {
    std::uint16_t key;
    std::uint32_t tuple;
  };
  using Breaks = std::span<const Break>;

  /// 2^bits addresses from `start` (low 16 address bits) on, of which the first is `tuple`.
  struct Block {
    std::uint32_t start;
    std::uint32_t bits;
    std::uint32_t tuple;
  };

  void addTuples(const TupleNumbers& tuples);
  void add(const ravel::IPProperty& range, std::uint32_t tuple);
  void setFrom(std::uint32_t address, std::uint32_t tuple);
  void closeBucketsBefore(std::uint32_t bucket);

  void makeBucket(std::uint32_t bucket, std::uint32_t tuple, Breaks breaks);
  std::uint32_t& word(std::ptrdiff_t number) noexcept;
  std::uint32_t makeNode(const Block& block, Breaks breaks);
  std::uint32_t makeDirectory(const Block& block, Breaks breaks);
  std::uint32_t makeLeaf(std::uint32_t first, Breaks breaks);
  std::size_t placeLeaf(std::size_t units);
  unsigned char* linkOf(std::uint32_t line) noexcept;

  static std::uint32_t leafWord(std::size_t unit, std::size_t keys) noexcept;
  static std::uint32_t uniformWord(std::uint32_t tuple) noexcept;

  static constexpr std::size_t kLineUnits = RangeIndex::kLineBytes / RangeIndex::kUnitBytes;

  std::span<const ravel::IPProperty> _ranges;
  RangeIndex _index;
  std::uint64_t _uncovered = 0;  ///< first address that no range so far reaches
  std::uint32_t _current = 0;    ///< tuple that holds from the last break point on
  std::uint32_t _bucket = 0;     ///< bucket that break points are gathered for
  std::uint32_t _first = 0;      ///< tuple at the first address of that bucket
  std::vector<Break> _breaks;    ///< break points inside that bucket
  /// By free 8-byte units: first of a chain of lines with that much room at their end; 0: none.
  std::array<std::uint32_t, kLineUnits> _open{};
};

}  // namespace tolvar
