#include "src/index/range_lookup.h"

#include <algorithm>
#include <array>

namespace tolvar {
namespace {

/// Addresses that are under way together. Enough to keep the memory busy, few enough for what one
/// stage leaves behind to stay in the first-level cache for the next.
constexpr std::size_t kGroup = 64;

void prefetch(const void* address) noexcept { __builtin_prefetch(address, 0, 3); }

}  // namespace

void RangeLookup::findTuples(std::span<const std::uint32_t> ips,
                             std::uint32_t* tuples) const noexcept {
  std::array<std::size_t, kGroup> numbers;
  std::array<std::uint32_t, kGroup> words;
  for (std::size_t begin = 0; begin < ips.size(); begin += kGroup) {
    const std::size_t count = std::min(kGroup, ips.size() - begin);
    const std::uint32_t* const group = ips.data() + begin;
    for (std::size_t i = 0; i < count; ++i) {
      numbers[i] = secondWordNumber(group[i]);
      prefetch(&_words[numbers[i]]);
    }
    for (std::size_t i = 0; i < count; ++i) {
      words[i] = resolve(numbers[i], group[i] & 0xFFFFu);
      prefetch(leafOf(words[i]));
    }
    for (std::size_t i = 0; i < count; ++i) {
      tuples[begin + i] = searchLeaf(words[i], group[i] & 0xFFFFu) >> kNumberShift;
    }
  }
}

std::size_t RangeLookup::findBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                                   std::uint8_t* found) const noexcept {
  std::array<std::uint32_t, kGroup> tuples;
  std::size_t hits = 0;
  for (std::size_t begin = 0; begin < ips.size(); begin += kGroup) {
    const std::size_t count = std::min(kGroup, ips.size() - begin);
    findTuples(ips.subspan(begin, count), tuples.data());
    for (std::size_t i = 0; i < count; ++i) prefetch(&info(tuples[i]));
    for (std::size_t i = 0; i < count; ++i) {
      infos[begin + i] = info(tuples[i]);
      const bool hit = tuples[i] != 0;
      found[begin + i] = hit;
      hits += hit;
    }
  }
  return hits;
}

}  // namespace tolvar
