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

template <class Word>
std::uint64_t load(const char* at) noexcept {
  Word word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

/// Up to eight bytes as one number. Two loads that may overlap cover every length without a loop;
/// lengths are told apart by the hash itself.
std::uint64_t loadShort(const char* at, std::size_t size) noexcept {
  if (size >= 4) return load<std::uint32_t>(at) << 32 | load<std::uint32_t>(at + size - 4);
  if (size >= 2) return load<std::uint16_t>(at) << 16 | load<std::uint16_t>(at + size - 2);
  return size == 1 ? load<std::uint8_t>(at) : 0;
}

/// Hash of type and name; never 0.
std::uint64_t hashOf(ravel::ReportType type, std::string_view name) noexcept {
  const char* at = name.data();
  std::size_t left = name.size();
  std::uint64_t state = mix(static_cast<std::uint64_t>(type), left);
  for (; left > 8; at += 8, left -= 8) state = mix(state, load<std::uint64_t>(at));
  return mix(state, loadShort(at, left)) | 1;
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
