#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "records/records.h"
#include "service/id_registry.h"
#include "service/iso_countries.h"
#include "service/text_source.h"

namespace tolvar::service {

/// Most bytes that a code entry may take when it is encoded: what clients keep one in.
inline constexpr std::size_t kMaxCodeEntryBytes = 120;

/// The names of one import. Names are interned while rows are read, and get their ids together at
/// the end, when all are known. Used by one thread at a time.
class NameTable {
 public:
  /// Stands for a name, or for the absence of one.
  using Handle = std::uint32_t;

  /// All must outlive the table.
  NameTable(const IsoCountries& countries, FaultList& faults);

  /// No place at all.
  Handle nowhere() const noexcept { return 0; }

  /// A country by name or code. `offset` is where it stands in the source.
  Handle country(std::string_view text, std::size_t offset);

  /// The place `text` one level below `parent`; an empty text is that level left open.
  Handle placeBelow(Handle parent, std::string_view text, std::size_t offset);

  /// A name of another kind (Extend, Oper, Nettype, Apn); an empty one has id 0.
  Handle attribute(CodeType type, std::string_view text, std::size_t offset);

  /// Gives every name its id, faults where that cannot be.
  void assignIds(IdRegistry& registry);

  // After assignIds:

  /// Place code of a place.
  std::int64_t place(Handle handle) const;

  /// Id of an attribute.
  std::uint32_t id(Handle handle) const { return static_cast<std::uint32_t>(_nodes[handle].id); }

  std::vector<ravel::CodeInfo> codes() const;

  /// What deserves a look but is no fault.
  std::vector<ImportNote> warnings() const;

 private:
  struct Node {
    Handle parent = 0;
    CodeType type = CodeType::Country;
    std::int64_t id = 0;
    std::string name;  ///< empty: a level left open
    std::size_t offset = 0;
    bool isFixed = false;     ///< the id does not come from the registry
    bool isUnlisted = false;  ///< a country code that no list explains
    std::string spelling;     ///< of a listed country: the one name that rows use for it, or none
    bool isSpelledVariously = false;
  };

  struct Key {
    Handle parent;
    std::string_view name;
    bool operator==(const Key&) const = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& key) const noexcept {
      return std::hash<std::string_view>()(key.name) ^ key.parent * 0x9E3779B97F4A7C15u;
    }
  };

  Handle intern(Handle parent, CodeType type, std::string_view name, std::size_t offset);
  Handle append(Node node);
  Handle listedCountry(const Country& country, std::string_view text, std::size_t offset);
  void checkName(const Node& node);
  void assignLevel(CodeType type, IdRegistry& registry);
  void assignChildren(std::span<Node* const> children, IdRegistry& registry);
  bool assignNode(Node& node, IdRegistry& registry);
  void addTooManyFault(const Node& node, std::int64_t siblings);
  std::pair<std::int64_t, std::int64_t> idsOf(const Node& node) const;
  void checkCodeSize(const Node& node);

  const IsoCountries& _countries;
  FaultList& _faults;
  std::deque<Node> _nodes;  ///< first the roots: places, then one for each other kind
  std::unordered_map<Key, Handle, KeyHash> _byName;
  std::unordered_map<std::int64_t, Handle> _listed;  ///< countries by id
  std::unordered_map<std::string_view, Handle> _countryTexts;
  std::deque<std::string> _texts;  ///< what _countryTexts points into
};

/// "country", "province" ... in messages.
const char* kindName(CodeType type);

}  // namespace tolvar::service
