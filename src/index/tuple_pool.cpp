#include "src/index/tuple_pool.h"

#include <bit>

namespace tolvar {
namespace {

constexpr std::size_t kFirstSlots = 1024;  // a power of two

/// So many lie near enough to the processor for nothing to be gained by fetching them early.
constexpr std::size_t kNearSlots = 4096;

}  // namespace

TuplePool::TuplePool() : _slots(kFirstSlots) {}

ravel::IPInfo TuplePool::unpack(const ravel::IPProperty& range) noexcept {
  ravel::IPInfo info;
  info.district = range.place;
  info.city = static_cast<std::uint32_t>(range.place / 1000);
  info.province = static_cast<std::uint32_t>(range.place / 1000000);
  info.country = static_cast<std::uint32_t>(range.place / 1000000000);
  info.extend = range.extend;
  info.oper = range.oper;
  info.nettype = range.nettype;
  info.apn = range.apn & 0xFFu;
  info.flable = range.flable & 0xFFu;
  return info;
}

TuplePool::Key TuplePool::keyOf(const ravel::IPProperty& range) noexcept {
  return {range.place, range.extend, range.oper, range.nettype,
          (range.apn & 0xFFu) << 8 | (range.flable & 0xFFu)};
}

std::uint64_t TuplePool::hash(const Key& key) noexcept {
  // Multiplication by odd constants and folding of the upper half: the ids are small and regular,
  // so every input bit has to reach the low bits that choose the slot.
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15u;  // 2^64 divided by the golden ratio
  auto mixed = static_cast<std::uint64_t>(key.place) * kOdd;
  mixed ^= mixed >> 32;
  mixed = (mixed ^ (std::uint64_t{key.extend} << 32 | key.oper)) * kOdd;
  mixed ^= mixed >> 32;
  mixed = (mixed ^ (std::uint64_t{key.nettype} << 32 | key.apnAndFlable)) * kOdd;
  return mixed ^ (mixed >> 32);
}

std::uint64_t TuplePool::prepare(const ravel::IPProperty& range) const noexcept {
  if (_slots.size() <= kNearSlots) return kNotHashed;
  const std::uint64_t hash = TuplePool::hash(keyOf(range));
  __builtin_prefetch(&_slots[hash & (_slots.size() - 1)]);
  return hash;
}

std::uint32_t TuplePool::number(const ravel::IPProperty& range, std::uint64_t hash, bool* isNew) {
  const Key key = keyOf(range);
  *isNew = false;
  if (_last.number != 0 && _last.key == key) return _last.number;
  if (2 * (std::size_t{_used} + 1) > _slots.size()) grow();
  const std::size_t mask = _slots.size() - 1;
  std::size_t at = (hash != kNotHashed ? hash : TuplePool::hash(key)) & mask;
  while (_slots[at].number != 0 && !(_slots[at].key == key)) at = (at + 1) & mask;
  if (_slots[at].number == 0) {
    _slots[at] = {key, ++_used};
    *isNew = true;
  }
  _last = _slots[at];
  return _last.number;
}

void TuplePool::grow() {
  std::vector<Slot, qel::HugePageAllocator<Slot>> larger(_slots.size() * 2);
  const std::size_t mask = larger.size() - 1;
  for (const Slot& slot : _slots) {
    if (slot.number == 0) continue;
    std::size_t at = hash(slot.key) & mask;
    while (larger[at].number != 0) at = (at + 1) & mask;
    larger[at] = slot;
  }
  _slots.swap(larger);
}

}  // namespace tolvar
