#include "src/index/range_lookup.h"

#include <algorithm>
#include <array>

namespace tolvar {
namespace {

/// Addresses that are under way together. Enough to keep the memory busy, few enough for what one
/// stage leaves behind to stay in the first-level cache for the next.
constexpr std::size_t kGroup = 128;

void prefetch(const void* address) noexcept { __builtin_prefetch(address, 0, 3); }

}  // namespace

std::size_t RangeLookup::findBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                                   std::uint8_t* found) const noexcept {
  // What is written through `found` could be this object, for all a compiler knows, but not a copy.
  const RangeLookup own = *this;
  std::size_t hits = 0;
  for (std::size_t begin = 0; begin < ips.size(); begin += kGroup) {
    const std::size_t count = std::min(kGroup, ips.size() - begin);
    hits += own.findGroup(ips.subspan(begin, count), infos + begin, found + begin);
  }
  return hits;
}

// The loops are so short that their counting is a good part of them, so a few rounds are made one.
inline std::size_t RangeLookup::findGroup(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                                          std::uint8_t* found) const noexcept {
  const std::size_t count = ips.size();
  std::array<std::int32_t, kGroup> numbers;
#pragma GCC unroll 4
  for (std::size_t i = 0; i < count; ++i) {
    const std::ptrdiff_t number = secondWordNumber(ips[i]);
    numbers[i] = static_cast<std::int32_t>(number);
    prefetch(wordAt(number));
  }
  std::array<std::uint32_t, kGroup> words;
#pragma GCC unroll 4
  for (std::size_t i = 0; i < count; ++i) {
    words[i] = resolve(numbers[i], ips[i]);
    prefetch(leafOf(words[i]));
  }
  std::array<std::uint32_t, kGroup> offsets;
#pragma GCC unroll 2
  for (std::size_t i = 0; i < count; ++i) {
    offsets[i] = static_cast<std::uint32_t>(infoOffset(searchLeaf(words[i], ips[i])));
    prefetch(infoAt(offsets[i]));
  }
#pragma GCC unroll 4
  for (std::size_t i = 0; i < count; ++i) infos[i] = *infoAt(offsets[i]);
  // Apart from the copy, where many at a time are compared and counted.
  std::uint32_t hits = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t hit = offsets[i] != 0;
    found[i] = static_cast<std::uint8_t>(hit);
    hits += hit;
  }
  return hits;
}

}  // namespace tolvar
