#include "src/index/tuple_numbers.h"

#include <algorithm>
#include <array>

namespace tolvar {
namespace {

constexpr std::size_t kFirstSlots = 1024;  // a power of two

/// Ranges numbered together, so that their waits for memory are shared.
constexpr std::size_t kBlock = 64;

template <class Slots>
void grow(Slots* slots) {
  Slots larger(slots->size() * 2);
  const std::size_t mask = larger.size() - 1;
  for (const auto& slot : *slots) {
    if (slot.number == 0) continue;
    std::size_t at = slot.hash & mask;
    while (larger[at].number != 0) at = (at + 1) & mask;
    larger[at] = slot;
  }
  slots->swap(larger);
}

}  // namespace

inline TupleNumbers::Key TupleNumbers::keyOf(const ravel::IPProperty& range) noexcept {
  return {static_cast<std::uint64_t>(range.place), std::uint64_t{range.extend} << 32 | range.oper,
          std::uint64_t{range.nettype} << 32 | (range.apn & 0xFFu) << 8 | (range.flable & 0xFFu)};
}

inline std::uint32_t TupleNumbers::hashOf(const Key& key) noexcept {
  // Multiplication by an odd constant and folding of the upper half: the ids are small and regular,
  // so every input bit has to reach the low bits that choose the slot.
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15u;  // 2^64 divided by the golden ratio
  std::uint64_t mixed = key.place * kOdd;
  mixed ^= mixed >> 32;
  mixed = (mixed ^ key.extendAndOper) * kOdd;
  mixed ^= mixed >> 32;
  mixed = (mixed ^ key.rest) * kOdd;
  return static_cast<std::uint32_t>(mixed ^ (mixed >> 32));
}

ravel::IPInfo TupleNumbers::unpack(const Key& key) noexcept {
  const auto place = static_cast<std::int64_t>(key.place);
  ravel::IPInfo info;
  info.district = place;
  info.city = static_cast<std::uint32_t>(place / 1000);
  info.province = static_cast<std::uint32_t>(place / 1000000);
  info.country = static_cast<std::uint32_t>(place / 1000000000);
  info.extend = static_cast<std::uint32_t>(key.extendAndOper >> 32);
  info.oper = static_cast<std::uint32_t>(key.extendAndOper);
  info.nettype = static_cast<std::uint32_t>(key.rest >> 32);
  info.apn = key.rest >> 8 & 0xFFu;
  info.flable = key.rest & 0xFFu;
  return info;
}

ravel::IPInfo infoOf(const ravel::IPProperty& range) noexcept {
  return TupleNumbers::unpack(TupleNumbers::keyOf(range));
}

TupleNumbers::TupleNumbers(std::span<const ravel::IPProperty> ranges)
    : _keys(1), _numbers(ranges.size()) {
  Slots slots(kFirstSlots);
  for (std::size_t begin = 0; begin < ranges.size(); begin += kBlock) {
    // At most half of the slots are ever taken.
    if (2 * (_keys.size() + kBlock) > slots.size()) grow(&slots);
    const std::size_t count = std::min(kBlock, ranges.size() - begin);
    numberBlock(ranges.subspan(begin, count), &slots, _numbers.data() + begin);
  }
}

void TupleNumbers::numberBlock(std::span<const ravel::IPProperty> ranges, Slots* slots,
                               std::uint32_t* numbers) {
  const std::span<Slot> table(*slots);
  const std::size_t mask = table.size() - 1;
  std::array<Key, kBlock> keys;
  std::array<std::uint32_t, kBlock> hashes;
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    keys[i] = keyOf(ranges[i]);
    hashes[i] = hashOf(keys[i]);
    __builtin_prefetch(&table[hashes[i] & mask]);
  }
  const Key* const known = _keys.data();
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    __builtin_prefetch(&known[table[hashes[i] & mask].number]);
  }
  for (std::size_t i = 0; i < ranges.size(); ++i) numbers[i] = numberOf(keys[i], hashes[i], table);
}

inline std::uint32_t TupleNumbers::numberOf(const Key& key, std::uint32_t hash,
                                            std::span<Slot> slots) {
  const std::size_t mask = slots.size() - 1;
  std::size_t at = hash & mask;
  for (; slots[at].number != 0; at = (at + 1) & mask) {
    if (slots[at].hash == hash && _keys[slots[at].number] == key) return slots[at].number;
  }
  const auto number = static_cast<std::uint32_t>(_keys.size());
  _keys.push_back(key);
  slots[at] = {hash, number};
  return number;
}

}  // namespace tolvar
