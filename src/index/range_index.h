#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "records/records.h"

namespace tolvar {

/// Answers which range of an IP table contains an address, in a fixed handful of memory accesses.
///
/// The ranges are turned into break points: the addresses at which the answer changes, each with
/// the number of the attribute tuple that holds from there on. Tuple 0 means "no range" and is all
/// zeros. Distinct attribute tuples are stored once, as ready `IPInfo` records.
///
///   words   65,536 directory words, one for each value of an address's upper 16 bits, followed by
///           the sub-directories of crowded buckets, whose words have the same form:
///             bit 31 = 0, bits 0-3 = 0       immediate: the whole bucket is tuple (bits 4-30)
///             bit 31 = 0, bits 0-3 = n       leaf of n keys at 8-byte unit (bits 4-30)
///             bit 31 = 1                     sub-directory: the next word's number is
///                                            (bits 0-26) + (low 16 address bits >> bits 27-30),
///                                            modulo 2^27
///   leaves  n 16-bit keys (low address bits of the break points inside the bucket, ascending),
///   then
///           n + 1 32-bit tuple numbers; entry i holds from key i - 1 on
///   tuples  one 64-byte line each
///
/// Thread safety: every operation of a finished index is const and may be called from any number of
/// threads at once. None allocates, locks or calls the operating system.
///
/// Invariants:
///  1. A finished index never changes.
///  2. Exactly one (bucket, leaf slot) answers each of the 2^32 addresses; there is no "not built"
///  state.
///  3. A leaf has 1 to 10 keys, strictly ascending, none equal to the first address of its bucket.
///  4. A leaf never straddles a cache line, and a leaf of more than 8 keys starts one, so the fixed
///     32 bytes that a key count reads lie in the leaf's own line.
///  5. Words, leaves and tuples are reached by number only, and every number stored is in bounds.
///  6. An immediate word reads leaf line 0, which always exists, and ignores what it finds there.
class RangeIndex {
 public:
  /// Builds the index of `ranges`, which are in the order of IPProperty's operator<. Both bounds of
  /// a range are inclusive, in host order. Where ranges overlap, the first in order that contains
  /// an address answers for it; a range whose end lies below its start is ignored. `apn` and
  /// `flable` are kept as their low 8 bits; `place` is split by truncating signed division.
  ///
  /// Takes linear time. Throws std::bad_alloc, and std::length_error when a table has more than
  /// 2^27 - 1 distinct attribute tuples or needs more than 1 GiB of leaves.
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
  const ravel::IPInfo& info(std::uint32_t tuple) const noexcept { return _tuples[tuple].info; }

  /// Attributes of the range that contains `ip` (host order), nullptr when none does. Valid as long
  /// as the index.
  const ravel::IPInfo* find(std::uint32_t ip) const noexcept {
    const std::uint32_t tuple = findTuple(ip);
    return tuple != 0 ? &_tuples[tuple].info : nullptr;
  }

  /// Copies the attributes of the range that contains `ip` (host order) to `info` and answers true;
  /// on a miss answers false and leaves `info` as it is. Does not branch on the outcome.
  bool lookup(std::uint32_t ip, ravel::IPInfo* info) const noexcept {
    const std::uint32_t tuple = findTuple(ip);
    const ravel::IPInfo* const sources[2] = {info, &_tuples[tuple].info};
    std::memmove(info, sources[tuple != 0], sizeof *info);
    return tuple != 0;
  }

  /// Looks `ips.size()` addresses (host order) up, with the memory accesses of many of them under
  /// way at the same time. `infos` and `found` have room for as many entries: found[i] becomes 1
  /// and infos[i] the attributes, or on a miss 0 and all zeros.
  void findBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                 std::uint8_t* found) const noexcept;

  /// The same, with the tuple numbers only.
  void findTuples(std::span<const std::uint32_t> ips, std::uint32_t* tuples) const noexcept;

  /// Ranges the index was built from, ignored ones included.
  std::size_t rangeCount() const noexcept { return _rangeCount; }

  /// Distinct attribute tuples, tuple 0 included: valid numbers are below it.
  std::size_t tupleCount() const noexcept { return _tuples.size(); }

  /// Memory held, in bytes.
  std::size_t memoryBytes() const noexcept;

 private:
  friend class RangeIndexBuilder;

  static constexpr std::uint32_t kDirectoryWords = 1u << 16;
  static constexpr std::uint32_t kNumberMask = (1u << 27) - 1;
  static constexpr std::uint32_t kLeafKeys = 10;
  static constexpr std::size_t kLineBytes = 64;
  static constexpr std::size_t kUnitBytes = 8;

  struct alignas(kLineBytes) Line {
    unsigned char bytes[kLineBytes];
  };
  struct alignas(kLineBytes) Tuple {
    ravel::IPInfo info;
  };
  static_assert(std::is_trivially_copyable_v<ravel::IPInfo>);
  static_assert(sizeof(Tuple) == kLineBytes);

  RangeIndex() = default;

  /// Number of the word that a sub-directory word leads to for the low 16 bits of an address.
  static std::uint32_t subWordNumber(std::uint32_t word, std::uint32_t low) noexcept {
    return (word + (low >> ((word >> 27) & 15u))) & kNumberMask;
  }

  /// Number of the second word read: a crowded bucket's sub-directory word, else the directory word
  /// once more. One form for both keeps an unpredictable branch out of the way of the next misses.
  std::uint32_t secondWordNumber(std::uint32_t ip) const noexcept {
    const std::uint32_t high = ip >> 16;
    const std::uint32_t word = _words[high];
    const std::uint32_t crowded = 0u - (word >> 31);
    return (high & ~crowded) | (subWordNumber(word, ip & 0xFFFFu) & crowded);
  }

  std::uint32_t resolve(std::uint32_t wordNumber, std::uint32_t low) const noexcept {
    std::uint32_t word = _words[wordNumber];
    while ((word >> 31) != 0) [[unlikely]] {
        word = _words[subWordNumber(word, low)];
      }
    return word;
  }

  std::uint32_t leafWord(std::uint32_t ip) const noexcept {
    return resolve(secondWordNumber(ip), ip & 0xFFFFu);
  }

  const unsigned char* leafOf(std::uint32_t word) const noexcept {
    const std::uint32_t isLeaf = (word & 15u) != 0 ? ~0u : 0u;
    return _lines.data()->bytes + static_cast<std::size_t>((word >> 4) & isLeaf) * kUnitBytes;
  }

  /// How many of the `keys` (0 to 10) sorted keys at `leaf` are not above `low`.
  static std::uint32_t countKeys(const unsigned char* leaf, std::uint32_t keys,
                                 std::uint32_t low) noexcept {
#if defined(__SSE2__)
    // Keys 8 and 9 exist only in a leaf that starts its line; elsewhere the load picks up something
    // else of the line, which the mask drops.
    const auto address = reinterpret_cast<std::uintptr_t>(leaf);
    const unsigned char* tail = leaf - (address & (kLineBytes - 1)) + 16;
    const __m128i wanted = _mm_set1_epi16(static_cast<short>(low));
    const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(leaf));
    const __m128i second = _mm_load_si128(reinterpret_cast<const __m128i*>(tail));
    const __m128i zero = _mm_setzero_si128();
    // Saturating subtraction leaves 0 exactly where the key is not above the address.
    const __m128i below = _mm_packs_epi16(_mm_cmpeq_epi16(_mm_subs_epu16(first, wanted), zero),
                                          _mm_cmpeq_epi16(_mm_subs_epu16(second, wanted), zero));
    const auto bits = static_cast<std::uint32_t>(_mm_movemask_epi8(below));
    return static_cast<std::uint32_t>(std::countr_one(bits & ((1u << keys) - 1u)));
#else
    std::uint32_t count = 0;
    for (std::uint32_t i = 0; i < keys; ++i) {
      std::uint16_t key;
      std::memcpy(&key, leaf + 2 * i, sizeof key);
      count += key <= low;
    }
    return count;
#endif
  }

  std::uint32_t searchLeaf(std::uint32_t word, std::uint32_t low) const noexcept {
    const std::uint32_t keys = word & 15u;
    const unsigned char* const leaf = leafOf(word);
    std::uint32_t tuple;
    std::memcpy(&tuple, leaf + 2 * keys + 4 * countKeys(leaf, keys, low), sizeof tuple);
    return keys != 0 ? tuple : word >> 4;
  }

  std::vector<std::uint32_t> _words;
  std::vector<Line> _lines;
  std::vector<Tuple> _tuples;
  std::size_t _rangeCount = 0;
};

}  // namespace tolvar
