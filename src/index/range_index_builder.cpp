#include "src/index/range_index_builder.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace tolvar {
namespace {

constexpr std::uint64_t kAddresses = std::uint64_t{1} << 32;

constexpr std::size_t kKeyBytes = 2;
constexpr std::size_t kTupleBytes = 3;

/// 8-byte units of a leaf of `keys` keys.
constexpr std::size_t leafUnits(std::size_t keys) {
  return (kKeyBytes * keys + kTupleBytes * (keys + 1) + 7) / 8;
}

/// A key count reads 24 bytes, so that many units of the line follow the start of every leaf, if
/// need be with other leaves in them.
constexpr std::size_t kReadUnits = 3;

/// Room for leaves to begin with. Most tables take between 6 and 8 bytes a range.
constexpr std::size_t expectedLeafLines(std::size_t ranges) { return ranges / 8 + 1; }

/// Room for the words of sub-directories to begin with.
constexpr std::size_t expectedWords(std::size_t ranges) { return ranges / 4; }

/// How many address bits a sub-directory over 2^bits addresses had best resolve for the sorted
/// break points `keyAt(0)` to `keyAt(count - 1)`, counted from its start: the number with the
/// lowest price, which is its words' bytes and, for each part that has more break points than a
/// leaf takes, the bytes of one more directory and a charge on each lookup there, for the
/// unforeseen jump and the memory access more.
template <class KeyAt>
std::uint32_t directoryBits(std::size_t count, std::uint32_t bits, std::size_t leafKeys,
                            KeyAt keyAt) noexcept {
  constexpr std::size_t kDirectoryPrice = 32;
  constexpr std::size_t kJumpPrice = 16;
  std::uint32_t best = 1;
  std::size_t bestPrice = SIZE_MAX;
  const auto fewest = static_cast<std::uint32_t>(std::bit_width(count / leafKeys));
  for (std::uint32_t own = std::max(1u, fewest); own <= bits; ++own) {
    const std::uint32_t shift = bits - own;
    const std::size_t words = sizeof(std::uint32_t) << own;
    if (words >= bestPrice) break;
    std::size_t crowded = 0;
    for (std::size_t begin = 0, end; begin < count; begin = end) {
      const std::uint32_t part = keyAt(begin) >> shift;
      for (end = begin + 1; end < count && keyAt(end) >> shift == part; ++end) {
      }
      if (end - begin > leafKeys) crowded += kDirectoryPrice + kJumpPrice * (end - begin);
    }
    if (words + crowded < bestPrice) {
      best = own;
      bestPrice = words + crowded;
    }
    if (crowded == 0) break;
  }
  return best;
}

}  // namespace

RangeIndex RangeIndex::build(std::span<const ravel::IPProperty> ranges) {
  RangeIndexBuilder builder(ranges);
  return builder.build();
}

RangeIndexBuilder::RangeIndexBuilder(std::span<const ravel::IPProperty> ranges) : _ranges(ranges) {
  _index._rangeCount = ranges.size();
}

RangeIndex RangeIndexBuilder::build() {
  {
    const TupleNumbers tuples(_ranges);
    addTuples(tuples);
    for (std::size_t i = 0; i < _ranges.size(); ++i) add(_ranges[i], tuples.ofRanges()[i]);
  }
  if (_uncovered < kAddresses) setFrom(static_cast<std::uint32_t>(_uncovered), 0);
  closeBucketsBefore(RangeIndex::kBuckets);
  _index._block.giveBackRoom();
  _index._base = _index._block.base() - RangeIndex::kDirectoryBytes;
  return std::move(_index);
}

void RangeIndexBuilder::addTuples(const TupleNumbers& tuples) {
  const std::size_t count = tuples.count();
  if (count > RangeIndex::kLineLimit) {
    throw std::length_error("the IP table has too many distinct attribute tuples to index");
  }
  _index._tupleCount = count;
  _index._block = IndexBlock(RangeIndex::kBuckets + expectedWords(_ranges.size()),
                             count + expectedLeafLines(_ranges.size()));
  _index._block.addWords(RangeIndex::kBuckets);
  for (std::size_t i = 0; i < count; ++i) {
    const auto number = static_cast<std::uint32_t>(i);
    unsigned char* const line = _index._block.line(_index._block.addLine());
    std::memcpy(line + RangeIndex::kTupleLeafAt, &number, kTupleBytes);
    const ravel::IPInfo info = tuples.info(number);
    std::memcpy(line + RangeIndex::kTupleInfoAt, &info, sizeof info);
  }
}

void RangeIndexBuilder::add(const ravel::IPProperty& range, std::uint32_t tuple) {
  // Earlier ranges start no later, so of this range they cover exactly what lies below _uncovered.
  const std::uint64_t start = std::max<std::uint64_t>(range.startIP, _uncovered);
  if (range.endIP < range.startIP || range.endIP < start) return;
  if (start > _uncovered) setFrom(static_cast<std::uint32_t>(_uncovered), 0);
  setFrom(static_cast<std::uint32_t>(start), tuple);
  _uncovered = std::uint64_t{range.endIP} + 1;
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
  makeBucket(_bucket, _first, _breaks);
  for (std::uint32_t empty = _bucket + 1; empty < bucket; ++empty) makeBucket(empty, _current, {});
  _bucket = bucket;
  _first = _current;
  _breaks.clear();
}

/// Writes the word of a bucket that begins with `tuple`.
void RangeIndexBuilder::makeBucket(std::uint32_t bucket, std::uint32_t tuple, Breaks breaks) {
  const std::uint32_t made = makeNode({0, 16, tuple}, breaks);
  word(bucket) = made;
}

std::uint32_t& RangeIndexBuilder::word(std::ptrdiff_t number) noexcept {
  return _index._block.word(number - std::ptrdiff_t{RangeIndex::kBuckets});
}

/// Word of `block`, which has `breaks` strictly inside.
std::uint32_t RangeIndexBuilder::makeNode(const Block& block, Breaks breaks) {
  if (breaks.empty()) return uniformWord(block.tuple);
  if (breaks.size() <= RangeIndex::kLeafKeys) return makeLeaf(block.tuple, breaks);
  return makeDirectory(block, breaks);
}

std::uint32_t RangeIndexBuilder::makeDirectory(const Block& block, Breaks breaks) {
  const std::uint32_t ownBits = directoryBits(
      breaks.size(), block.bits, RangeIndex::kLeafKeys,
      [&](std::size_t i) { return static_cast<std::uint32_t>(breaks[i].key) - block.start; });
  const std::uint32_t shift = block.bits - ownBits;
  const std::size_t words = std::size_t{1} << ownBits;
  // A word may refer to a place before its directory, by up to a word for each address of a bucket.
  if (_index._block.words() + words + RangeIndex::kBuckets > RangeIndex::kWordLimit) {
    throw std::length_error("the IP table has too many crowded address blocks to index");
  }
  const std::ptrdiff_t first = _index._block.addWords(words) + std::ptrdiff_t{RangeIndex::kBuckets};
  Block part{block.start, shift, block.tuple};
  std::size_t at = 0;
  for (std::size_t i = 0; i < words; ++i, part.start += 1u << shift) {
    if (at < breaks.size() && breaks[at].key == part.start) part.tuple = breaks[at++].tuple;
    std::size_t end = at;
    while (end < breaks.size() && (breaks[end].key - block.start) >> shift == i) ++end;
    const std::uint32_t made = makeNode(part, breaks.subspan(at, end - at));
    word(first + static_cast<std::ptrdiff_t>(i)) = made;
    if (end > at) part.tuple = breaks[end - 1].tuple;
    at = end;
  }
  // Lookups shift the low address bits as a whole, so the word takes the block's start back.
  const std::ptrdiff_t base = first - std::ptrdiff_t{block.start >> shift};
  return static_cast<std::uint32_t>(base) << 5 | RangeIndex::kDirectoryBit | shift;
}

std::uint32_t RangeIndexBuilder::makeLeaf(std::uint32_t first, Breaks breaks) {
  const std::size_t unit = placeLeaf(leafUnits(breaks.size()));
  unsigned char* out = _index._block.base() + unit * RangeIndex::kUnitBytes;
  for (const Break& point : breaks) {
    const std::int16_t key = RangeIndex::keyOf(point.key);
    std::memcpy(out, &key, kKeyBytes);
    out += kKeyBytes;
  }
  std::memcpy(out, &first, kTupleBytes);
  for (const Break& point : breaks) {
    out += kTupleBytes;
    std::memcpy(out, &point.tuple, kTupleBytes);
  }
  return leafWord(unit, breaks.size());
}

/// A word that leads to the leaf of `keys` keys at `unit` units from the first line.
std::uint32_t RangeIndexBuilder::leafWord(std::size_t unit, std::size_t keys) noexcept {
  constexpr std::size_t kLines = RangeIndex::kDirectoryBytes / RangeIndex::kUnitBytes;
  return static_cast<std::uint32_t>((kLines + unit) << 5 | keys);
}

/// The word of a block that is all one tuple: it leads to the leaf without keys in that one's line.
std::uint32_t RangeIndexBuilder::uniformWord(std::uint32_t tuple) noexcept {
  return leafWord(tuple * kLineUnits + RangeIndex::kTupleLeafAt / RangeIndex::kUnitBytes, 0);
}

/// Finds room for a leaf of `units` 8-byte units inside one line; answers its unit number.
std::size_t RangeIndexBuilder::placeLeaf(std::size_t units) {
  std::size_t room = std::max(units, kReadUnits);
  while (room < kLineUnits && _open[room] == 0) ++room;
  std::uint32_t line;
  if (room < kLineUnits) {
    line = _open[room];
    std::memcpy(&_open[room], linkOf(line), sizeof line);
  } else {
    room = kLineUnits;
    if (_index._block.lines() == RangeIndex::kLineLimit) {
      throw std::length_error("the IP table has too many ranges and attribute tuples to index");
    }
    line = static_cast<std::uint32_t>(_index._block.addLine());
  }
  const std::size_t left = room - units;
  if (left >= kReadUnits) {
    std::memcpy(linkOf(line), &_open[left], sizeof line);
    _open[left] = line;
  }
  return line * kLineUnits + (kLineUnits - room);
}

/// Where a line with room left, whose end is therefore free, says which the next such line is.
unsigned char* RangeIndexBuilder::linkOf(std::uint32_t line) noexcept {
  return _index._block.line(line) + RangeIndex::kLineBytes - sizeof line;
}

}  // namespace tolvar
