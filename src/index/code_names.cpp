#include "src/index/code_names.h"

#include <bit>
#include <stdexcept>

namespace tolvar {
namespace {

constexpr std::array<std::string_view, 15> kLabels = {
    "FROM_QK", "FROM_RTL",    "FROM_RTL_HMV", "FROM_PLEX1", "FROM_PLEX2",
    "FROM_JN", "FROM_JN_HVM", "FROM_ORB",     "FROM_YAT",   "FROM_KV",
    "RTL",     "JN",          "TZ",           "KV",         "PLEX"};

/// Multiplicative hashing: the upper bits of the product depend on every bit of the id.
std::size_t slotOf(std::uint64_t id, unsigned shift) noexcept {
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15u;  // 2^64 divided by the golden ratio
  return (id * kOdd) >> shift;
}

}  // namespace

std::string_view labelName(std::uint32_t id) noexcept {
  return id - 1 < kLabels.size() ? kLabels[id - 1] : std::string_view();
}

CodeNames::CodeNames() {
  for (Table& table : _tables) table.slots.resize(2);
  addLabels();
  addReadableBytes();
}

CodeNames::CodeNames(const std::unordered_map<std::uint64_t, ravel::CodeInfo> (&maps)[kTypes]) {
  std::size_t bytes = 0;
  for (const auto& map : maps) {
    for (const auto& [id, code] : map) bytes += code.content.size();
  }
  addLabels();
  _text.reserve(_text.size() + bytes + kReadableBytes);
  for (std::size_t i = 0; i < _tables.size(); ++i) fill(&_tables[i], maps[i]);
  addReadableBytes();
}

void CodeNames::addReadableBytes() { _text.insert(_text.end(), kReadableBytes, '\0'); }

void CodeNames::addLabels() {
  for (const std::string_view label : kLabels) append(label);
}

CodeNames::Place CodeNames::append(std::string_view name) {
  if (_text.size() + name.size() > UINT32_MAX) {
    throw std::length_error("the names of the code tables take 4 GiB or more");
  }
  const Place place{static_cast<std::uint32_t>(_text.size()),
                    static_cast<std::uint32_t>(name.size())};
  _text.insert(_text.end(), name.begin(), name.end());
  return place;
}

void CodeNames::fill(Table* table, const std::unordered_map<std::uint64_t, ravel::CodeInfo>& map) {
  const std::size_t slots = std::bit_ceil(2 * map.size() + 2);
  table->slots.resize(slots);
  table->shift = 64 - static_cast<unsigned>(std::bit_width(slots) - 1);
  for (const auto& [id, code] : map) {
    if (code.content.empty()) continue;
    std::size_t at = slotOf(id, table->shift);
    while (table->slots[at].place.length != 0) at = (at + 1) & (slots - 1);
    table->slots[at] = {id, append(code.content)};
  }
}

CodeNames::Place CodeNames::findPlace(int type, std::uint64_t id) const noexcept {
  if (type < 0 || type >= kTypes) return {};
  const Table& table = _tables[static_cast<std::size_t>(type)];
  const std::size_t mask = table.slots.size() - 1;
  std::size_t at = slotOf(id, table.shift);
  while (table.slots[at].place.length != 0 && table.slots[at].id != id) at = (at + 1) & mask;
  return table.slots[at].place;
}

CodeNames::Place CodeNames::labelPlace(std::uint32_t id) const noexcept {
  if (id - 1 >= kLabels.size()) return {};
  std::uint32_t offset = 0;
  for (std::uint32_t i = 0; i < id - 1; ++i) {
    offset += static_cast<std::uint32_t>(kLabels[i].size());
  }
  return {offset, static_cast<std::uint32_t>(kLabels[id - 1].size())};
}

std::size_t CodeNames::memoryBytes() const noexcept {
  std::size_t bytes = sizeof *this + _text.capacity();
  for (const Table& table : _tables) bytes += table.slots.capacity() * sizeof(Slot);
  return bytes;
}

}  // namespace tolvar
