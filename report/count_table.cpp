#include "report/count_table.h"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

namespace tolvar {
namespace {

// The golden ratio times 2^64, made odd: the usual multiplier of multiplicative hashing
// (Knuth, The Art of Computer Programming, volume 3, section 6.4).
constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15u;

std::uint64_t mix(std::uint64_t state, std::uint64_t word) noexcept {
  state = (state ^ word) * kMultiplier;
  return state ^ (state >> 29);
}

/// Hash of type and name, eight bytes at a step; never 0.
std::uint64_t hashOf(ravel::ReportType type, std::string_view name) noexcept {
  std::uint64_t state = mix(static_cast<std::uint64_t>(type), name.size());
  const char* at = name.data();
  std::size_t left = name.size();
  for (; left >= 8; at += 8, left -= 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, at, 8);
    state = mix(state, word);
  }
  std::uint64_t rest = 0;
  for (std::size_t i = 0; i < left; ++i)
    rest |= static_cast<std::uint64_t>(static_cast<unsigned char>(at[i])) << (8 * i);
  state = mix(state, rest);
  return state | 1;
}

}  // namespace

CountTable::Slot& CountTable::probe(std::uint64_t hash, ravel::ReportType type,
                                    std::string_view name) noexcept {
  // The table is never full, so that a free slot ends the search. The high bits are the good ones.
  const std::size_t mask = _slots.size() - 1;
  for (std::size_t i = (hash >> 32) & mask;; i = (i + 1) & mask) {
    Slot& slot = _slots[i];
    if (slot.hash == kFree || (slot.hash == hash && slot.type == type && slot.name == name))
      return slot;
  }
}

bool CountTable::add(ravel::ReportType type, std::string_view name, std::uint64_t hits) noexcept {
  if (_slots.empty()) return false;
  Slot& slot = probe(hashOf(type, name), type, name);
  if (slot.hash == kFree) return false;
  slot.count += hits;
  return true;
}

void CountTable::insert(ravel::ReportType type, std::string_view name, std::uint64_t hits) {
  if ((_size + 1) * 2 > _slots.size()) grow();
  std::string copy(name);
  const std::uint64_t hash = hashOf(type, name);
  Slot& slot = probe(hash, type, name);
  slot.hash = hash;
  slot.count = hits;
  slot.name.swap(copy);
  slot.type = type;
  ++_size;
}

void CountTable::grow() {
  std::vector<Slot> larger(_slots.empty() ? kFirstSlots : _slots.size() * 2);
  larger.swap(_slots);
  for (Slot& slot : larger) {
    if (slot.hash != kFree) std::swap(probe(slot.hash, slot.type, slot.name), slot);
  }
}

std::vector<ravel::ReportCount> CountTable::sorted() const {
  std::vector<ravel::ReportCount> counts;
  counts.reserve(_size);
  for (const Slot& slot : _slots) {
    if (slot.hash == kFree) continue;
    ravel::ReportCount& count = counts.emplace_back();
    count.info.type = slot.type;
    count.info.name = slot.name;
    count.count = slot.count;
  }
  std::sort(counts.begin(), counts.end(), [](const auto& a, const auto& b) {
    return std::tie(a.info.type, a.info.name) < std::tie(b.info.type, b.info.name);
  });
  return counts;
}

}  // namespace tolvar
