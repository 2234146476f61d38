#include "src/index/code_names.h"

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <utility>

namespace tolvar {
namespace {

constexpr std::array<std::string_view, 15> kLabels = {
    "FROM_QK", "FROM_RTL",    "FROM_RTL_HMV", "FROM_PLEX1", "FROM_PLEX2",
    "FROM_JN", "FROM_JN_HVM", "FROM_ORB",     "FROM_YAT",   "FROM_KV",
    "RTL",     "JN",          "TZ",           "KV",         "PLEX"};

/// Names whose slots are fetched before their turn.
constexpr std::size_t kAhead = 16;

/// Multiplicative hashing: the upper bits of the product depend on every bit of the id.
std::size_t slotOf(std::uint64_t id, unsigned shift) noexcept {
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15u;  // 2^64 divided by the golden ratio
  return (id * kOdd) >> shift;
}

const ravel::CodeInfo& recordOf(const ravel::CodeInfo& code) { return code; }
const ravel::CodeInfo& recordOf(const std::pair<const std::uint64_t, ravel::CodeInfo>& entry) {
  return entry.second;
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
  addAll(maps);
}

CodeNames::CodeNames(const std::vector<ravel::CodeInfo> (&lists)[kTypes]) { addAll(lists); }

template <class Codes>
void CodeNames::addAll(const Codes (&tables)[kTypes]) {
  std::size_t bytes = 0;
  for (const Codes& codes : tables) {
    for (const auto& code : codes) bytes += recordOf(code).content.size();
  }
  addLabels();
  _text.reserve(_text.size() + bytes + kReadableBytes);
  for (std::size_t i = 0; i < _tables.size(); ++i) {
    const std::size_t begin = _text.size();
    fill(&_tables[i], tables[i]);
    setExtent(i, begin);
  }
  addReadableBytes();
}

void CodeNames::addReadableBytes() { _text.insert(_text.end(), kReadableBytes, '\0'); }

void CodeNames::addLabels() {
  for (const std::string_view label : kLabels) append(label);
  setExtent(kTypes, 0);
}

/// Of the kind whose names are the last in the text, from `begin` on.
void CodeNames::setExtent(std::size_t kind, std::size_t begin) noexcept {
  _extents[kind] = {static_cast<std::uint32_t>(begin),
                    static_cast<std::uint32_t>(_text.size() - begin)};
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
  makeSlots(table, map.size());
  for (const auto& [id, code] : map) add(table, id, code.content);
}

void CodeNames::fill(Table* table, const std::vector<ravel::CodeInfo>& list) {
  const auto idOf = [](const ravel::CodeInfo& code) { return static_cast<std::uint64_t>(code.ID); };
  const auto disordered = [&](const auto& left, const auto& right) {
    return idOf(left) >= idOf(right);
  };
  if (std::adjacent_find(list.begin(), list.end(), disordered) != list.end()) {
    // An id may be there twice. That is nothing the client writes, so it need not be fast.
    std::unordered_map<std::uint64_t, ravel::CodeInfo> map;
    for (const ravel::CodeInfo& code : list) map.insert_or_assign(idOf(code), code);
    return fill(table, map);
  }
  makeSlots(table, list.size());
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (i + kAhead < list.size()) prefetch(*table, idOf(list[i + kAhead]));
    add(table, idOf(list[i]), list[i].content);
  }
}

void CodeNames::makeSlots(Table* table, std::size_t codes) {
  const std::size_t slots = std::bit_ceil(2 * codes + 2);
  table->slots.resize(slots);
  table->shift = 64 - static_cast<unsigned>(std::bit_width(slots) - 1);
}

/// Adds a name whose id the table does not have yet.
void CodeNames::add(Table* table, std::uint64_t id, std::string_view name) {
  if (name.empty()) return;
  const std::size_t mask = table->slots.size() - 1;
  std::size_t at = slotOf(id, table->shift);
  while (table->slots[at].place.length != 0) at = (at + 1) & mask;
  table->slots[at] = {id, append(name)};
}

CodeNames::Place CodeNames::findPlace(int type, std::uint64_t id) const noexcept {
  if (type < 0 || type >= kTypes) return {};
  const Table& table = _tables[static_cast<std::size_t>(type)];
  const std::size_t mask = table.slots.size() - 1;
  std::size_t at = slotOf(id, table.shift);
  while (table.slots[at].place.length != 0 && table.slots[at].id != id) at = (at + 1) & mask;
  return table.slots[at].place;
}

void CodeNames::prefetch(int type, std::uint64_t id) const noexcept {
  prefetch(_tables[static_cast<std::size_t>(type)], id);
}

void CodeNames::prefetch(const Table& table, std::uint64_t id) noexcept {
  __builtin_prefetch(&table.slots[slotOf(id, table.shift)]);
}

CodeNames::Place CodeNames::labelPlace(std::uint32_t id) const noexcept {
  if (id - 1 >= kLabels.size()) return {};
  std::uint32_t offset = 0;
  for (std::uint32_t i = 0; i < id - 1; ++i) {
    offset += static_cast<std::uint32_t>(kLabels[i].size());
  }
  return {offset, static_cast<std::uint32_t>(kLabels[id - 1].size())};
}

}  // namespace tolvar
