#include "service/name_table.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace tolvar::service {
namespace {

constexpr std::int64_t kChildren = 1000;  ///< numbers 0 to 999 below one parent
constexpr std::uint32_t kLargestReportedApn = 255;

std::int32_t number(CodeType type) { return static_cast<std::int32_t>(type); }
bool isPlace(CodeType type) { return type <= CodeType::District; }
CodeType next(CodeType type) { return static_cast<CodeType>(number(type) + 1); }

/// Root nodes: 0 for places, 1 to 4 for the other kinds.
NameTable::Handle rootOf(CodeType type) {
  return isPlace(type) ? 0 : static_cast<NameTable::Handle>(number(type) - 4);
}

ravel::CodeInfo codeOf(CodeType type, std::int64_t id, const std::string& content) {
  ravel::CodeInfo code;
  code.codeType = number(type);
  code.ID = id;
  code.content = content;
  return code;
}

std::size_t encodedSize(const ravel::CodeInfo& code) {
  qel::VekOutputStream<qel::BufferWriter> out;
  code.writeTo(out);
  return out.getLength();
}

const char* pluralName(CodeType type) {
  static const char* const names[] = {"",          "countries",     "provinces",
                                      "cities",    "districts",     "extend names",
                                      "operators", "network types", "access points"};
  return names[number(type)];
}

}  // namespace

const char* kindName(CodeType type) {
  static const char* const names[] = {"",         "country",      "province",
                                      "city",     "district",     "extend",
                                      "operator", "network type", "access point"};
  return names[number(type)];
}

NameTable::NameTable(const IsoCountries& countries, FaultList& faults)
    : _countries(countries), _faults(faults) {
  for (int root = 0; root < 5; ++root) {
    Node node;
    node.isFixed = true;
    append(std::move(node));
  }
}

NameTable::Handle NameTable::append(Node node) {
  _nodes.push_back(std::move(node));
  return static_cast<Handle>(_nodes.size() - 1);
}

NameTable::Handle NameTable::intern(Handle parent, CodeType type, std::string_view name,
                                    std::size_t offset) {
  const auto known = _byName.find({parent, name});
  if (known != _byName.end()) return known->second;
  Node node;
  node.parent = parent;
  node.type = type;
  node.name = name;
  node.offset = offset;
  const Handle handle = append(std::move(node));
  _byName.emplace(Key{parent, _nodes[handle].name}, handle);
  checkName(_nodes[handle]);
  return handle;
}

NameTable::Handle NameTable::country(std::string_view text, std::size_t offset) {
  if (text.empty()) return intern(0, CodeType::Country, text, offset);
  const auto known = _countryTexts.find(text);
  if (known != _countryTexts.end()) return known->second;
  const auto country = _countries.find(text);
  const Handle handle =
      country ? listedCountry(*country, text, offset) : intern(0, CodeType::Country, text, offset);
  _countryTexts.emplace(_texts.emplace_back(text), handle);
  return handle;
}

NameTable::Handle NameTable::listedCountry(const Country& country, std::string_view text,
                                           std::size_t offset) {
  const auto [entry, isNew] = _listed.try_emplace(country.id, 0);
  if (isNew) {
    Node node;
    node.id = country.id;
    node.name = country.name;
    node.offset = offset;
    node.isFixed = true;
    node.isUnlisted = !country.isListed;
    entry->second = append(std::move(node));
  }
  if (!country.isCode) {
    Node& node = _nodes[entry->second];
    node.isSpelledVariously |= !node.spelling.empty() && node.spelling != text;
    node.spelling = text;
  }
  return entry->second;
}

NameTable::Handle NameTable::placeBelow(Handle parent, std::string_view text, std::size_t offset) {
  return intern(parent, next(_nodes[parent].type), text, offset);
}

NameTable::Handle NameTable::attribute(CodeType type, std::string_view text, std::size_t offset) {
  return text.empty() ? rootOf(type) : intern(rootOf(type), type, text, offset);
}

void NameTable::checkName(const Node& node) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  const std::string what = std::string(kindName(node.type)) + " name " + quoted(node.name);
  if (!isUtf8(node.name)) {
    _faults.add(node.offset, what + " is not valid UTF-8");
  } else if (node.name.find('\0') != std::string::npos) {
    _faults.add(node.offset, what + " holds a NUL byte; expected text");
  } else if (std::any_of(node.name.begin(), node.name.end(), isControl)) {
    _faults.add(node.offset, what + " holds a control character; expected text on one line");
  }
}

void NameTable::assignIds(IdRegistry& registry) {
  // Parents before children: a child's id begins with its parent's.
  for (std::int32_t type = 1; type <= 8; ++type) assignLevel(static_cast<CodeType>(type), registry);
}

void NameTable::assignLevel(CodeType type, IdRegistry& registry) {
  std::vector<Node*> level;
  for (Node& node : _nodes) {
    if (node.type == type && !node.isFixed) level.push_back(&node);
  }
  const auto order = [this](const Node* node) {
    return std::make_tuple(_nodes[node->parent].id, std::string_view(node->name));
  };
  std::sort(level.begin(), level.end(),
            [&](const Node* a, const Node* b) { return order(a) < order(b); });
  for (auto first = level.begin(); first != level.end();) {
    const auto last = std::find_if(
        first, level.end(), [&](const Node* node) { return node->parent != (*first)->parent; });
    assignChildren({first, last}, registry);
    first = last;
  }
}

void NameTable::assignChildren(std::span<Node* const> children, IdRegistry& registry) {
  bool isFull = false;
  for (Node* node : children) {
    if (assignNode(*node, registry) || std::exchange(isFull, true)) continue;
    const auto named = std::count_if(children.begin(), children.end(),
                                     [](const Node* sibling) { return !sibling->name.empty(); });
    addTooManyFault(*node, named);
  }
}

void NameTable::addTooManyFault(const Node& node, std::int64_t siblings) {
  const Node& parent = _nodes[node.parent];
  const auto [first, last] = idsOf(node);
  const std::int64_t most = last - first + 1;
  std::string text =
      std::string(kindName(node.type)) + " name " + quoted(node.name) +
      " is one too many: expected at most " + std::to_string(most) + " " + pluralName(node.type) +
      (parent.name.empty() ? std::string(" in one table") : " in " + quoted(parent.name));
  if (siblings <= most) {
    text +=
        ", those of earlier tables included, whose ids stay taken; import into a new database "
        "to give ids anew";
  }
  _faults.add(node.offset, text);
}

std::pair<std::int64_t, std::int64_t> NameTable::idsOf(const Node& node) const {
  if (node.type == CodeType::Country) return {kFirstOwnCountry, kLastOwnCountry};
  if (!isPlace(node.type)) return {1, UINT32_MAX};
  const std::int64_t below = _nodes[node.parent].id * kChildren;
  return {below + 1, below + kChildren - 1};
}

bool NameTable::assignNode(Node& node, IdRegistry& registry) {
  const Node& parent = _nodes[node.parent];
  if (node.name.empty()) {
    node.id = node.type == CodeType::Country ? 0 : parent.id * kChildren;
    return true;
  }
  const auto [first, last] = idsOf(node);
  const auto id = registry.assign({node.type, parent.id, node.name}, first, last);
  if (!id) return false;
  node.id = *id;
  checkCodeSize(node);
  return true;
}

void NameTable::checkCodeSize(const Node& node) {
  const std::size_t size = encodedSize(codeOf(node.type, node.id, node.name));
  if (size <= kMaxCodeEntryBytes) return;
  _faults.add(node.offset, std::string(kindName(node.type)) + " name " + quoted(node.name) +
                               " is too long: expected at most " +
                               std::to_string(node.name.size() - (size - kMaxCodeEntryBytes)) +
                               " bytes, found " + std::to_string(node.name.size()));
}

std::int64_t NameTable::place(Handle handle) const {
  const Node& node = _nodes[handle];
  std::int64_t place = node.id;
  for (std::int32_t level = number(node.type); level < number(CodeType::District); ++level)
    place *= kChildren;
  return place;
}

std::vector<ravel::CodeInfo> NameTable::codes() const {
  std::vector<ravel::CodeInfo> codes;
  for (const Node& node : _nodes) {
    if (node.name.empty()) continue;
    const bool isSpelled = !node.spelling.empty() && !node.isSpelledVariously;
    codes.push_back(codeOf(node.type, node.id, isSpelled ? node.spelling : node.name));
  }
  std::sort(codes.begin(), codes.end());
  return codes;
}

std::vector<ImportNote> NameTable::warnings() const {
  std::vector<ImportNote> notes;
  const Node* firstApn = nullptr;
  std::size_t wideApns = 0;
  for (const Node& node : _nodes) {
    if (node.isUnlisted) {
      notes.push_back(_faults.source().note(
          node.offset, "country code " + quoted(node.name) + " is in no list; it gets id " +
                           std::to_string(node.id) + " and its code as its name"));
    }
    if (node.type != CodeType::Apn || node.id <= kLargestReportedApn) continue;
    ++wideApns;
    if (firstApn == nullptr || node.offset < firstApn->offset) firstApn = &node;
  }
  if (firstApn != nullptr) {
    notes.push_back(_faults.source().note(
        firstApn->offset, "access point " + quoted(firstApn->name) + " gets id " +
                              std::to_string(firstApn->id) + "; " + std::to_string(wideApns) +
                              " ids are above 255, and lookups report only their low 8 bits"));
  }
  return notes;
}

}  // namespace tolvar::service
