#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/huge_pages.h"
#include "records/records.h"

namespace tolvar {

/// Name of a source label: ids 1 to 15 have one, all others answer an empty view. The view is valid
/// for the life of the process.
std::string_view labelName(std::uint32_t id) noexcept;

/// The names of the eight code tables and of the source labels in one text, found by flat hash
/// tables. Immutable: every operation of a finished object may be called from any number of threads
/// at once, and none allocates, locks or calls the operating system. Views are valid as long as the
/// object, which may not be moved meanwhile.
class CodeNames {
 public:
  /// A name's place in the text.
  struct Place {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;  ///< bytes
  };

  /// This many bytes may be read from the first one of every name on, however short it is.
  static constexpr std::size_t kReadableBytes = 32;

  /// Code types: country, province, city, district, extend, oper, nettype, apn.
  static constexpr int kTypes = 8;

  /// Kinds of names: those of the code types, in their order, and the labels'.
  static constexpr std::size_t kNames = kTypes + 1;

  /// No names but the labels.
  CodeNames();

  /// The names of `maps`, one map for each code type, from id to the record whose `content` is the
  /// name. Throws std::bad_alloc, and std::length_error when the names take 4 GiB or more.
  explicit CodeNames(const std::unordered_map<std::uint64_t, ravel::CodeInfo> (&maps)[kTypes]);

  /// The same of one list for each code type; of several entries with one id the last counts.
  explicit CodeNames(const std::vector<ravel::CodeInfo> (&lists)[kTypes]);

  /// Name of `id`; empty when the table has none and when `type` is outside 0 to 7.
  std::string_view find(int type, std::uint64_t id) const noexcept {
    return view(findPlace(type, id));
  }

  /// The same as a place in the text.
  Place findPlace(int type, std::uint64_t id) const noexcept;

  /// Begins to fetch what findPlace reads, or the text of a place, from memory.
  void prefetch(int type, std::uint64_t id) const noexcept;
  void prefetch(Place place) const noexcept { __builtin_prefetch(_text.data() + place.offset); }

  /// Place of labelName(id) in the text.
  Place labelPlace(std::uint32_t id) const noexcept;

  /// Where all names of a kind lie together; `kind` is below kNames.
  Place extent(std::size_t kind) const noexcept { return _extents[kind]; }

  std::string_view view(Place place) const noexcept {
    return {_text.data() + place.offset, place.length};
  }

 private:
  struct Slot {
    std::uint64_t id = 0;
    Place place;  ///< length 0: free; an empty name needs no slot
  };
  struct Table {
    /// A power of two, at most half of them taken, at least one free.
    std::vector<Slot, qel::HugePageAllocator<Slot>> slots;
    unsigned shift = 63;  ///< what of a hash chooses the slot
  };

  static void prefetch(const Table& table, std::uint64_t id) noexcept;

  void addLabels();
  void setExtent(std::size_t kind, std::size_t begin) noexcept;
  void addReadableBytes();
  Place append(std::string_view name);
  template <class Codes>
  void addAll(const Codes (&tables)[kTypes]);
  void fill(Table* table, const std::unordered_map<std::uint64_t, ravel::CodeInfo>& map);
  void fill(Table* table, const std::vector<ravel::CodeInfo>& list);
  void makeSlots(Table* table, std::size_t codes);
  void add(Table* table, std::uint64_t id, std::string_view name);

  std::vector<char, qel::HugePageAllocator<char>> _text;
  std::array<Place, kNames> _extents;
  std::array<Table, kTypes> _tables;
};

}  // namespace tolvar
