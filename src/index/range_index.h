#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <vector>

// TOLVAR_PORTABLE_INDEX keeps to the portable path where there is a faster one; for its tests.
#if defined(__SSE2__) && !defined(TOLVAR_PORTABLE_INDEX)
#define TOLVAR_INDEX_SSE2 1
#include <emmintrin.h>
#endif

#include "platform/huge_pages.h"
#include "records/records.h"

namespace tolvar {

/// Answers which range of an IP table contains an address, in a fixed handful of memory accesses.
///
/// The ranges are turned into break points: the addresses at which the answer changes, each with
/// the number of the attribute tuple that holds from there on. Tuple 0 means "no range" and is all
/// zeros. Distinct attribute tuples are stored once, as ready `IPInfo` records.
///
///   words   65,536 pairs, one for each value of an address's upper 16 bits. The first word of a
///           pair says where the next one to read is:
///             number of the next word = (bits 5-31) + (low 16 address bits >> bits 0-4)
///           which for most is the second word of the pair, in the same cache line. After the pairs
///           come the sub-directories of crowded buckets. All words but the first of a pair:
///             bit 0 = 0   leaf of n keys: 2 n in bits 0-4, 8-byte unit of its place in bits 5-31
///             bit 0 = 1   sub-directory of its own: number of the next word = (bits 5-31)
///                         + (low 16 address bits >> bits 1-4), modulo 2^27
///   lines   of 64 bytes, first those with leaves, then one for each tuple.
///           Leaf: n signed 16-bit keys (the low 16 address bits, less 32768, of the break points
///           inside its block of addresses; ascending), then n + 1 24-bit tuple numbers: number i
///           holds from key i - 1 on.
///           Tuple: its `IPInfo`, then, in byte 48, the leaf without keys for blocks that are all
///           this tuple.
///
/// Thread safety: every operation of a finished index is const and may be called from any number of
/// threads at once. None allocates, locks or calls the operating system.
///
/// Invariants:
///  1. A finished index never changes.
///  2. Exactly one slot of one leaf answers each of the 2^32 addresses.
///  3. A leaf has at most 8 keys, strictly ascending, none equal to the first address of its block.
///  4. A leaf never straddles a cache line; nor do the 16 bytes from its start that a count reads.
///  5. Words, leaves and tuples are reached by number only, and every number stored is in bounds.
class RangeIndex {
 public:
  /// Builds the index of `ranges`, which are in the order of IPProperty's operator<. Both bounds of
  /// a range are inclusive, in host order. Where ranges overlap, the first in order that contains
  /// an address answers for it; a range whose end lies below its start is ignored. `apn` and
  /// `flable` are kept as their low 8 bits; `place` is split by truncating signed division.
  ///
  /// Takes linear time. Throws std::bad_alloc, and std::length_error when the index needs more than
  /// 2^27 words, 2^24 attribute tuples or 1 GiB of leaves and tuples.
  static RangeIndex build(std::span<const ravel::IPProperty> ranges);

  RangeIndex(RangeIndex&&) noexcept = default;
  RangeIndex& operator=(RangeIndex&&) noexcept = default;
  RangeIndex(const RangeIndex&) = delete;
  RangeIndex& operator=(const RangeIndex&) = delete;

  /// Number of the attribute tuple of the range that contains `ip` (host order); 0 when none does.
  std::uint32_t findTuple(std::uint32_t ip) const noexcept {
    return searchLeaf(leafWord(ip), ip & 0xFFFFu);
  }

  /// Attributes of a tuple; `tuple` is below tupleCount(). Tuple 0 is all zeros. Valid as long as
  /// the index.
  const ravel::IPInfo& info(std::uint32_t tuple) const noexcept { return lineOf(tuple).tuple.info; }

  /// Attributes of the range that contains `ip` (host order), nullptr when none does. Valid as long
  /// as the index.
  const ravel::IPInfo* find(std::uint32_t ip) const noexcept {
    const std::uint32_t tuple = findTuple(ip);
    return tuple != 0 ? &info(tuple) : nullptr;
  }

  /// Copies the attributes of the range that contains `ip` (host order) to `info` and answers true;
  /// on a miss answers false and leaves `info` as it is.
  bool lookup(std::uint32_t ip, ravel::IPInfo* info) const noexcept {
    const std::uint32_t tuple = findTuple(ip);
    const ravel::IPInfo* source = &this->info(tuple);
    if (tuple == 0) [[unlikely]]
      source = info;
    *info = *source;
    return tuple != 0;
  }

  /// Looks `ips.size()` addresses (host order) up, with the memory accesses of many of them under
  /// way at the same time. `infos` and `found` have room for as many entries: found[i] becomes 1
  /// and infos[i] the attributes, or on a miss 0 and all zeros. Answers how many were found.
  std::size_t findBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                        std::uint8_t* found) const noexcept;

  /// The same, with the tuple numbers only.
  void findTuples(std::span<const std::uint32_t> ips, std::uint32_t* tuples) const noexcept;

  /// Ranges the index was built from, ignored ones included.
  std::size_t rangeCount() const noexcept { return _rangeCount; }

  /// Distinct attribute tuples, tuple 0 included: valid numbers are below it.
  std::size_t tupleCount() const noexcept { return _lines.size() - _leafLines; }

  /// Lines of 64 bytes that hold leaves.
  std::size_t leafLineCount() const noexcept { return _leafLines; }

  /// Memory held, in bytes.
  std::size_t memoryBytes() const noexcept;

 private:
  friend class RangeIndexBuilder;

  static constexpr std::uint32_t kBuckets = 1u << 16;
  static constexpr std::uint32_t kDirectoryWords = 2 * kBuckets;
  static constexpr std::uint32_t kNumberMask = (1u << 27) - 1;
  static constexpr std::uint32_t kTupleLimit = 1u << 24;
  static constexpr std::uint32_t kLeafKeys = 8;
  static constexpr std::size_t kLineBytes = 64;
  static constexpr std::size_t kUnitBytes = 8;

  union alignas(kLineBytes) Line {
    unsigned char bytes[kLineBytes];
    struct {
      ravel::IPInfo info;
      std::uint32_t number;
    } tuple;

    Line() noexcept : bytes{} {}
  };
  static_assert(std::endian::native == std::endian::little);

  using Words = std::vector<std::uint32_t, qel::HugePageAllocator<std::uint32_t>>;
  using Lines = std::vector<Line, qel::HugePageAllocator<Line>>;

  RangeIndex() = default;

  const Line& lineOf(std::uint32_t tuple) const noexcept { return _lines[_leafLines + tuple]; }

  std::uint32_t secondWordNumber(std::uint32_t ip) const noexcept {
    const std::uint32_t word = _words[2 * (ip >> 16)];
    return (word >> 5) + ((ip & 0xFFFFu) >> (word & 31u));
  }

  /// The leaf word that second word `number` is or leads to for the low 16 bits of an address.
  /// Nearly always it is one; a leaf behind each second word would take too much memory.
  std::uint32_t resolve(std::uint32_t number, std::uint32_t low) const noexcept {
    std::uint32_t word = _words[number];
    while ((word & 1u) != 0) [[unlikely]] {
        word = _words[((word >> 5) + (low >> ((word >> 1) & 15u))) & kNumberMask];
      }
    return word;
  }

  std::uint32_t leafWord(std::uint32_t ip) const noexcept {
    return resolve(secondWordNumber(ip), ip & 0xFFFFu);
  }

  const unsigned char* leafOf(std::uint32_t word) const noexcept {
    return _lines.data()->bytes + std::size_t{word >> 5} * kUnitBytes;
  }

  /// Low 16 address bits in the form of keys: signed, because that is how SSE2 compares.
  static std::int16_t keyOf(std::uint32_t low) noexcept {
    return static_cast<std::int16_t>(static_cast<std::int32_t>(low) - 0x8000);
  }

  /// Twice the number of keys at `leaf` that are not above `low`, of `doubleKeys` / 2 (0 to 8)
  /// sorted ones.
  static std::uint32_t countKeys(const unsigned char* leaf, std::uint32_t doubleKeys,
                                 std::uint32_t low) noexcept {
#ifdef TOLVAR_INDEX_SSE2
    const __m128i keys = _mm_loadu_si128(reinterpret_cast<const __m128i*>(leaf));
    const __m128i above = _mm_cmpgt_epi16(keys, _mm_set1_epi16(keyOf(low)));
    // Two equal bits for each key. What lies behind the last one is cut off by the bit set there.
    const auto bits = static_cast<std::uint32_t>(_mm_movemask_epi8(above));
    return static_cast<std::uint32_t>(std::countr_zero(bits | (1u << doubleKeys)));
#else
    std::uint32_t count = 0;
    for (std::uint32_t i = 0; i < doubleKeys; i += 2) {
      std::int16_t key;
      std::memcpy(&key, leaf + i, sizeof key);
      count += key <= keyOf(low) ? 2 : 0;
    }
    return count;
#endif
  }

  std::uint32_t searchLeaf(std::uint32_t word, std::uint32_t low) const noexcept {
    const std::uint32_t doubleKeys = word & 31u;
    const unsigned char* const leaf = leafOf(word);
    const std::uint32_t doubleCount = countKeys(leaf, doubleKeys, low);
    // Read with the byte before it, which is always one of the line, the number is on top.
    std::uint32_t tuple;
    std::memcpy(&tuple, leaf + doubleKeys + doubleCount + doubleCount / 2 - 1, sizeof tuple);
    return tuple >> 8;
  }

  Words _words;
  Lines _lines;
  std::size_t _leafLines = 0;
  std::size_t _rangeCount = 0;
};

}  // namespace tolvar
