#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>

// TOLVAR_PORTABLE_INDEX keeps to the portable path where there is a faster one; for its tests. The
// faster one has instructions of 64 bits in it, which processors with SSE2 may be without.
#if defined(__SSE2__) && defined(__LP64__) && !defined(TOLVAR_PORTABLE_INDEX)
#define TOLVAR_INDEX_SSE2 1
#include <emmintrin.h>
#endif

#include "records/records.h"
#include "src/index/index_block.h"

namespace tolvar {

/// What a lookup reads of a RangeIndex, and how: where it lies in memory. A copy is cheap and
/// spares a lookup the way over the index; it is valid as long as the index it was copied from. See
/// RangeIndex for the layout.
///
/// Thread safety: every operation is const and may be called from any number of threads at once.
/// None allocates, locks or calls the operating system.
class RangeLookup {
 public:
  /// Number of the attribute tuple of the range that contains `ip` (host order); 0 when none does.
  std::uint32_t findTuple(std::uint32_t ip) const noexcept {
    return searchLeaf(leafWord(ip), ip) >> kNumberShift;
  }

  /// Attributes of a tuple; `tuple` is below tupleCount(). Tuple 0 is all zeros. Valid as long as
  /// the index.
  const ravel::IPInfo& info(std::uint32_t tuple) const noexcept {
    return *infoAt(kLineBytes * tuple);
  }

  /// Attributes of the range that contains `ip` (host order), nullptr when none does. Valid as long
  /// as the index.
  const ravel::IPInfo* find(std::uint32_t ip) const noexcept {
    const std::uint32_t tuple = findTuple(ip);
    return tuple != 0 ? &info(tuple) : nullptr;
  }

  /// Copies the attributes of the range that contains `ip` (host order) to `info` and answers true;
  /// on a miss answers false and leaves `info` as it is.
  bool lookup(std::uint32_t ip, ravel::IPInfo* info) const noexcept {
    const std::size_t offset = infoOffset(searchLeaf(leafWord(ip), ip));
    const ravel::IPInfo* source = infoAt(offset);
    if (offset == 0) [[unlikely]]
      source = info;
    *info = *source;
    return offset != 0;
  }

  /// Looks `ips.size()` addresses (host order) up, with the memory accesses of many of them under
  /// way at the same time. `infos` and `found` have room for as many entries: found[i] becomes 1
  /// and infos[i] the attributes, or on a miss 0 and all zeros. Answers how many were found.
  std::size_t findBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                        std::uint8_t* found) const noexcept;

 protected:
  RangeLookup() = default;

  static constexpr std::uint32_t kBuckets = 1u << 16;
  static constexpr std::size_t kDirectoryBytes = kBuckets * sizeof(std::uint32_t);
  static constexpr std::size_t kWordLimit = std::size_t{1} << 26;
  static constexpr std::uint32_t kDirectoryBit = 1u << 4;
  static constexpr std::uint32_t kLeafKeys = 12;
  static constexpr std::size_t kLineBytes = IndexBlock::kLineBytes;
  static constexpr std::size_t kUnitBytes = 8;
  /// What the 27 bits of a leaf's place reach; 24 bits tell any of so few tuples.
  static constexpr std::size_t kLineLimit =
      ((kUnitBytes << 27) - kDirectoryBytes) / IndexBlock::kLineBytes;
  static constexpr std::size_t kTupleLeafAt = 8;    ///< leaf without keys in a tuple's line
  static constexpr std::size_t kTupleInfoAt = 16;   ///< IPInfo in a tuple's line
  static constexpr std::uint32_t kNumberShift = 8;  ///< see searchLeaf
  static_assert(kTupleInfoAt + sizeof(ravel::IPInfo) <= kLineBytes);
  static_assert(std::endian::native == std::endian::little);

  /// Low 16 address bits in the form of keys: signed, because that is how SSE2 compares.
  static std::int16_t keyOf(std::uint32_t ip) noexcept {
    return static_cast<std::int16_t>(ip ^ 0x8000u);
  }

  /// Where the directory begins: sub-directories lie below it, lines behind the directory. It is
  /// all that a lookup has to load before the first word.
  const unsigned char* _base = nullptr;

 private:
  /// findBatch for no more addresses than are under way together.
  std::size_t findGroup(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                        std::uint8_t* found) const noexcept;

  /// Where the attributes of what searchLeaf found lie, in bytes: the number times the size of a
  /// line, without shifting it down first. 0 when no range was found.
  static std::size_t infoOffset(std::uint32_t leafEntry) noexcept {
    static_assert(kNumberShift == 8 && kLineBytes == 1u << 6);
    return std::size_t{leafEntry} >> 2 & ~(kLineBytes - 1);
  }

  const ravel::IPInfo* infoAt(std::size_t offset) const noexcept {
    return reinterpret_cast<const ravel::IPInfo*>(_base + offset + kDirectoryBytes + kTupleInfoAt);
  }

  const std::int32_t* wordAt(std::ptrdiff_t number) const noexcept {
    return reinterpret_cast<const std::int32_t*>(_base) + number;
  }

  /// Where word `word` leads for `ip`, provided that it leads to a sub-directory. Its shift is
  /// meant for the low 16 address bits and reaches them with bit 4, the flag, as 16 more, so that
  /// nothing has to be cut off. Of 64 bits, as all that addresses memory here: a sum of 32 would
  /// have to be extended first.
  static std::ptrdiff_t nextNumber(std::ptrdiff_t word, std::uint32_t ip) noexcept {
    static_assert(kDirectoryBit == 16);
    return (word >> 5) + static_cast<std::ptrdiff_t>(ip << 16 >> (word & 31));
  }

  /// The second word to read: one of a sub-directory, or where the directory has a leaf the same
  /// once more. That costs less than a branch which no processor can foresee.
  std::ptrdiff_t secondWordNumber(std::uint32_t ip) const noexcept {
    const std::ptrdiff_t bucket = ip >> 16;
    const std::ptrdiff_t word = *wordAt(bucket);
    std::ptrdiff_t number = nextNumber(word, ip);
#ifdef TOLVAR_INDEX_SSE2
    // Compilers know that the directory's word was read already, and would make it a branch.
    __asm__("testl %2, %k1\n\tcmovzq %3, %0"
            : "+r"(number)
            : "r"(word), "i"(kDirectoryBit), "r"(bucket)
            : "cc");
#else
    if ((word & kDirectoryBit) == 0) number = bucket;
#endif
    return number;
  }

  /// The leaf word that second word `number` is or leads to for `ip`. Nearly always it is one; a
  /// leaf behind each second word would take too much memory.
  std::uint32_t resolve(std::ptrdiff_t number, std::uint32_t ip) const noexcept {
    std::int32_t word = *wordAt(number);
    while ((word & kDirectoryBit) != 0) [[unlikely]] word = *wordAt(nextNumber(word, ip));
    return static_cast<std::uint32_t>(word);
  }

  std::uint32_t leafWord(std::uint32_t ip) const noexcept {
    return resolve(secondWordNumber(ip), ip);
  }

  const unsigned char* leafOf(std::uint32_t word) const noexcept {
    return _base + std::size_t{word >> 5} * kUnitBytes;
  }

  /// Number of keys at `leaf` that are not above that of `ip`, of `keys` (0 to 12) sorted ones.
  static std::uint32_t countKeys(const unsigned char* leaf, std::size_t keys,
                                 std::uint32_t ip) noexcept {
#ifdef TOLVAR_INDEX_SSE2
    // What keyOf does, but among the vectors: of general registers a lookup keeps as few as it can.
    const __m128i key = _mm_xor_si128(_mm_set1_epi16(static_cast<std::int16_t>(ip)),
                                      _mm_set1_epi16(std::numeric_limits<std::int16_t>::min()));
    const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(leaf));
    const __m128i last = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(leaf + sizeof first));
    const __m128i above = _mm_packs_epi16(_mm_cmpgt_epi16(first, key), _mm_cmpgt_epi16(last, key));
    // A bit for each key. What lies behind the last one is cut off by the bit set there.
    const auto bits = static_cast<std::uint32_t>(_mm_movemask_epi8(above));
    return static_cast<std::uint32_t>(std::countr_zero(bits | (1u << keys)));
#else
    std::uint32_t count = 0;
    for (std::size_t i = 0; i < keys; ++i) {
      std::int16_t key;
      std::memcpy(&key, leaf + 2 * i, sizeof key);
      count += key <= keyOf(ip) ? 1 : 0;
    }
    return count;
#endif
  }

  /// The tuple's number in the upper 24 bits, something else below: it is read with the byte before
  /// it, which is always one of the line.
  std::uint32_t searchLeaf(std::uint32_t word, std::uint32_t ip) const noexcept {
    const std::size_t keys = word & 31u;
    const unsigned char* const leaf = leafOf(word);
    const unsigned char* numbers = leaf + 2 * keys;
    __asm__("" : "+r"(numbers));  // or compilers would have this sum, too, wait for the count
    std::uint32_t number;
    std::memcpy(&number, numbers + 3 * countKeys(leaf, keys, ip) - 1, sizeof number);
    return number;
  }
};

}  // namespace tolvar
