#include "src/index/range_index_builder.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

namespace tolvar {
namespace {

constexpr std::uint64_t kAddresses = std::uint64_t{1} << 32;

}  // namespace

RangeIndex RangeIndex::build(std::span<const ravel::IPProperty> ranges) {
  RangeIndexBuilder builder(ranges.size());
  for (const ravel::IPProperty& range : ranges) builder.add(range);
  return builder.finish();
}

RangeIndexBuilder::RangeIndexBuilder(std::size_t expectedRanges) {
  _index._words.reserve(RangeIndex::kDirectoryWords + expectedRanges / 4);
  _index._words.assign(RangeIndex::kDirectoryWords, 0);
  _index._lines.reserve(expectedRanges / 8 + 1);
  _index._lines.emplace_back();  // what immediate words read
  _index._tuples.emplace_back();
}

void RangeIndexBuilder::add(const ravel::IPProperty& range) {
  ++_index._rangeCount;
  // Earlier ranges start no later, so of this range they cover exactly what lies below _uncovered.
  const std::uint64_t start = std::max<std::uint64_t>(range.startIP, _uncovered);
  if (range.endIP < range.startIP || range.endIP < start) return;
  if (start > _uncovered) setFrom(static_cast<std::uint32_t>(_uncovered), 0);
  setFrom(static_cast<std::uint32_t>(start), tupleOf(range));
  _uncovered = std::uint64_t{range.endIP} + 1;
}

RangeIndex RangeIndexBuilder::finish() {
  if (_uncovered < kAddresses) setFrom(static_cast<std::uint32_t>(_uncovered), 0);
  closeBucketsBefore(RangeIndex::kDirectoryWords);
  _index._words.shrink_to_fit();
  _index._lines.shrink_to_fit();
  _index._tuples.shrink_to_fit();
  return std::move(_index);
}

std::uint32_t RangeIndexBuilder::tupleOf(const ravel::IPProperty& range) {
  bool isNew;
  const std::uint32_t number = _pool.number(range, &isNew);
  if (isNew) {
    if (number > RangeIndex::kNumberMask) {
      throw std::length_error("the IP table has too many distinct attribute tuples to index");
    }
    _index._tuples.push_back({TuplePool::unpack(range)});
  }
  return number;
}

void RangeIndexBuilder::setFrom(std::uint32_t address, std::uint32_t tuple) {
  if (tuple == _current) return;
  closeBucketsBefore(address >> 16);
  _current = tuple;
  const auto key = static_cast<std::uint16_t>(address & 0xFFFFu);
  if (key == 0) {
    _first = tuple;
  } else {
    _breaks.push_back({key, tuple});
  }
}

void RangeIndexBuilder::closeBucketsBefore(std::uint32_t bucket) {
  if (_bucket == bucket) return;
  const std::uint32_t word = makeNode(_first, {_breaks.data(), _breaks.size()}, 0, 16);
  _index._words[_bucket] = word;
  const auto words = _index._words.begin();
  std::fill(words + _bucket + 1, words + bucket, _current << 4);
  _bucket = bucket;
  _first = _current;
  _breaks.clear();
}

/// Word for the 2^bits addresses from `start` on (low 16 address bits), where `first` holds at
/// `start` and `breaks` lie strictly inside.
std::uint32_t RangeIndexBuilder::makeNode(std::uint32_t first, Breaks breaks, std::uint32_t start,
                                          std::uint32_t bits) {
  if (breaks.count == 0) return first << 4;
  if (breaks.count <= RangeIndex::kLeafKeys) return makeLeaf(first, breaks);
  return makeDirectory(first, breaks, start, bits);
}

/// How many address bits a sub-directory resolves: as many as give every sub-bucket a leaf, but no
/// more words than break points. What is still crowded then gets a sub-directory of its own.
std::uint32_t RangeIndexBuilder::directoryBits(Breaks breaks, std::uint32_t bits) noexcept {
  std::uint32_t needed = 1;
  for (std::size_t i = 0; i + RangeIndex::kLeafKeys < breaks.count; ++i) {
    const auto differing =
        static_cast<std::uint32_t>(breaks.data[i].key ^ breaks.data[i + RangeIndex::kLeafKeys].key);
    const auto common = bits - static_cast<std::uint32_t>(std::bit_width(differing));
    needed = std::max(needed, common + 1);
  }
  const auto affordable = static_cast<std::uint32_t>(std::bit_width(breaks.count)) - 1;
  return std::min(needed, affordable);
}

std::uint32_t RangeIndexBuilder::makeDirectory(std::uint32_t first, Breaks breaks,
                                               std::uint32_t start, std::uint32_t bits) {
  const std::uint32_t ownBits = directoryBits(breaks, bits);
  const std::uint32_t shift = bits - ownBits;
  const std::size_t base = _index._words.size();
  const std::size_t words = std::size_t{1} << ownBits;
  if (base + words > RangeIndex::kNumberMask) {
    throw std::length_error("the IP table has too many crowded address blocks to index");
  }
  _index._words.resize(base + words);
  std::size_t at = 0;
  for (std::size_t i = 0; i < words; ++i) {
    const auto subStart = start + (static_cast<std::uint32_t>(i) << shift);
    if (at < breaks.count && breaks.data[at].key == subStart) first = breaks.data[at++].tuple;
    std::size_t end = at;
    while (end < breaks.count && (breaks.data[end].key - start) >> shift == i) ++end;
    const std::uint32_t word = makeNode(first, {breaks.data + at, end - at}, subStart, shift);
    _index._words[base + i] = word;
    if (end > at) first = breaks.data[end - 1].tuple;
    at = end;
  }
  // The low address bits are shifted as a whole, so the base takes the bucket's own start back.
  const std::uint32_t biased =
      (static_cast<std::uint32_t>(base) - (start >> shift)) & RangeIndex::kNumberMask;
  return 1u << 31 | shift << 27 | biased;
}

std::uint32_t RangeIndexBuilder::makeLeaf(std::uint32_t first, Breaks breaks) {
  const std::size_t bytes = 2 * breaks.count + 4 * (breaks.count + 1);
  const std::size_t units =
      std::max(kMinLeafUnits, (bytes + RangeIndex::kUnitBytes - 1) / RangeIndex::kUnitBytes);
  const std::size_t unit = placeLeaf(units);
  unsigned char* out = _index._lines.data()->bytes + unit * RangeIndex::kUnitBytes;
  for (std::size_t i = 0; i < breaks.count; ++i) {
    std::memcpy(out, &breaks.data[i].key, 2);
    out += 2;
  }
  std::memcpy(out, &first, 4);
  for (std::size_t i = 0; i < breaks.count; ++i) {
    out += 4;
    std::memcpy(out, &breaks.data[i].tuple, 4);
  }
  return static_cast<std::uint32_t>(unit) << 4 | static_cast<std::uint32_t>(breaks.count);
}

/// Finds room for a leaf of `units` 8-byte units inside one line; answers its unit number.
std::size_t RangeIndexBuilder::placeLeaf(std::size_t units) {
  std::size_t room = units;
  while (room < kLineUnits && _open[room] == 0) ++room;
  std::uint32_t line;
  if (room < kLineUnits) {
    line = _open[room];
    std::memcpy(&_open[room], linkOf(line), sizeof line);
  } else {
    room = kLineUnits;
    if ((_index._lines.size() + 1) * kLineUnits > RangeIndex::kNumberMask) {
      throw std::length_error("the IP table has too many ranges to index");
    }
    line = static_cast<std::uint32_t>(_index._lines.size());
    _index._lines.emplace_back();
  }
  const std::size_t left = room - units;
  if (left >= kMinLeafUnits) {
    std::memcpy(linkOf(line), &_open[left], sizeof line);
    _open[left] = line;
  }
  return line * kLineUnits + (kLineUnits - room);
}

/// Where a line with room left, whose end is therefore free, says which the next such line is.
unsigned char* RangeIndexBuilder::linkOf(std::uint32_t line) noexcept {
  return _index._lines[line].bytes + RangeIndex::kLineBytes - sizeof line;
}

}  // namespace tolvar
