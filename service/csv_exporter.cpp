#include "service/csv_exporter.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include "service/address_text.h"
#include "service/csv_importer.h"
#include "service/importer.h"
#include "service/label_names.h"
#include "service/name_table.h"
#include "service/text_source.h"

namespace tolvar::service {
namespace {

constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kIdMark = "#id\t";
constexpr std::string_view kHeader =
    "start,end,country,province,city,district,extend,oper,nettype,apn,flable\n";

void appendField(std::string& out, std::string_view text) {
  out += ',';
  const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
  const bool isQuoted = text.find_first_of(",\"") != std::string_view::npos ||
                        (!text.empty() && (isBlank(text.front()) || isBlank(text.back())));
  if (!isQuoted) {
    out += text;
    return;
  }
  out += '"';
  for (const char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

/// Writes rows with the texts that the importer understands.
class RowWriter {
 public:
  RowWriter(const TableVersion& table, const IsoCountries& countries) {
    for (const ravel::CodeInfo& code : table.codes()) {
      const auto type = static_cast<CodeType>(code.codeType);
      _names[{type, code.ID}] =
          type == CodeType::Country ? countryText(code, countries) : code.content;
    }
  }

  void append(std::string& out, const ravel::IPProperty& range) {
    out += formatIPv4(range.startIP);
    out += ',';
    out += formatIPv4(range.endIP);
    out += placeText(range.place);
    appendName(out, CodeType::Extend, range.extend);
    appendName(out, CodeType::Oper, range.oper);
    appendName(out, CodeType::Nettype, range.nettype);
    appendName(out, CodeType::Apn, range.apn);
    out += ',';
    if (range.flable > kLabelNames.size())
      throw std::runtime_error("the label " + std::to_string(range.flable) + " has no text");
    if (range.flable != 0) out += kLabelNames[range.flable - 1];
    out += '\n';
  }

 private:
  /// Two countries of the lists may share a name; the code tells them apart.
  static std::string countryText(const ravel::CodeInfo& code, const IsoCountries& countries) {
    const auto found = countries.find(code.content);
    if (!found || found->id == code.ID) return code.content;
    const auto letters = countries.codeOf(code.ID);
    return letters ? *letters : code.content;
  }

  void appendName(std::string& out, CodeType type, std::int64_t id) const {
    if (id == 0) {
      out += ',';
      return;
    }
    const auto name = _names.find({type, id});
    if (name == _names.end())
      throw std::runtime_error(std::string("the ") + kindName(type) + " " + std::to_string(id) +
                               " has no name");
    appendField(out, name->second);
  }

  /// Neighbours often lie in one place.
  const std::string& placeText(std::int64_t place) {
    const auto [entry, isNew] = _places.try_emplace(place);
    if (!isNew) return entry->second;
    std::string& text = entry->second;
    appendName(text, CodeType::Country, place / 1000000000);
    appendLevel(text, CodeType::Province, place / 1000000);
    appendLevel(text, CodeType::City, place / 1000);
    appendLevel(text, CodeType::District, place);
    return text;
  }

  void appendLevel(std::string& out, CodeType type, std::int64_t id) const {
    appendName(out, type, id % 1000 == 0 ? 0 : id);
  }

  std::map<std::pair<CodeType, std::int64_t>, std::string> _names;
  std::unordered_map<std::int64_t, std::string> _places;
};

bool isSameContent(const TableVersion& a, const TableVersion& b) {
  const auto same = [](const ravel::CodeInfo& left, const ravel::CodeInfo& right) {
    return !(left < right) && !(right < left);
  };
  return a.digest() == b.digest() &&
         std::equal(a.codes().begin(), a.codes().end(), b.codes().begin(), b.codes().end(), same);
}

/// What is wrong with an id that the importer would never give to such a name, so that places keep
/// their parents; empty when nothing is.
std::string faultOf(const IdRegistry::Key& key, std::int64_t id) {
  const auto isOutside = [id](std::int64_t first, std::int64_t last) {
    return id < first || id > last
               ? "is not from " + std::to_string(first) + " to " + std::to_string(last)
               : "";
  };
  if (key.type > CodeType::Country && key.type <= CodeType::District) {
    const bool isBelow = id / 1000 == key.parent && id % 1000 != 0;
    return isBelow ? "" : "does not lie below its parent's " + std::to_string(key.parent);
  }
  if (key.parent != 0) return "has the parent " + std::to_string(key.parent) + "; expected 0";
  return key.type == CodeType::Country ? isOutside(kFirstOwnCountry, kLastOwnCountry)
                                       : isOutside(1, UINT32_MAX);
}

void checkId(const IdRegistry::Key& key, std::int64_t id) {
  const std::string fault = faultOf(key, id);
  if (fault.empty()) return;
  throw std::invalid_argument(std::string("the ") + kindName(key.type) + " id " +
                              std::to_string(id) + " " + fault);
}

/// Takes over an entry as IdRegistry writes it, without the line end.
void takeId(std::string_view entry, IdRegistry& ids) {
  std::string fault;
  try {
    const IdRegistry one = IdRegistry::fromText(std::string(entry) + "\n");
    for (const auto& [key, id] : one.entries()) {
      checkId(key, id);
      ids.restore(key, id);
    }
    return;
  } catch (const std::invalid_argument& error) {
    fault = error.what();
  }
  constexpr std::string_view kOwnLine = "line 1: ";
  throw std::invalid_argument(fault.starts_with(kOwnLine) ? fault.substr(kOwnLine.size()) : fault);
}

/// Reads the text back as an import does.
void verify(const std::string& text, const TableVersion& table, const IdRegistry& ids,
            const std::string& isoCountriesPath) {
  ImportOptions options;
  options.isoCountriesPath = isoCountriesPath;
  options.ids = ids;
  ImportResult result = importCsv(TextSource("the exported text", text), options);
  if (isSameContent(TableVersion(std::move(result.table), 1), table)) return;
  throw std::runtime_error(
      "the table holds ids or names that an import of its CSV would not give again");
}

}  // namespace

std::string exportCsv(const TableVersion& table, const IdRegistry& ids,
                      const std::string& isoCountriesPath) {
  const IsoCountries countries = IsoCountries::load(isoCountriesPath);
  std::string text = "# " + std::to_string(table.ranges().size()) + " ranges, digest " +
                     table.digest() +
                     "\n# Lines that begin with #id keep the ids of names: type, parent, id, name, "
                     "separated by tabs.\n";
  const std::string entries = ids.toText();
  for (std::string_view rest = entries; !rest.empty();) {
    const std::size_t end = rest.find('\n') + 1;
    text += kIdMark;
    text += rest.substr(0, end);
    rest.remove_prefix(end);
  }
  text += kHeader;
  RowWriter rows(table, countries);
  for (const ravel::IPProperty& range : table.ranges()) rows.append(text, range);
  verify(text, table, ids, isoCountriesPath);
  return text;
}

IdRegistry exportedIds(std::string_view text) {
  IdRegistry ids;
  if (text.starts_with(kUtf8Mark)) text.remove_prefix(kUtf8Mark.size());
  for (std::size_t line = 1; text.starts_with('#'); ++line) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) break;
    std::string_view entry = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (!entry.starts_with(kIdMark)) continue;
    if (entry.ends_with('\r')) entry.remove_suffix(1);
    try {
      takeId(entry.substr(kIdMark.size()), ids);
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument("line " + std::to_string(line) + ": #id: " + error.what());
    }
  }
  return ids;
}

IdRegistry exportedIds(const TextSource& source) {
  try {
    return exportedIds(source.text());
  } catch (const std::invalid_argument& error) {
    throw std::runtime_error(source.name() + ": " + error.what());
  }
}

std::size_t mergeIds(IdRegistry& own, const IdRegistry& other) {
  std::size_t left = 0;
  std::set<std::int64_t> foreignPlaces;  // ids of places that stayed out; no two levels share one
  for (const auto& [key, id] : other.entries()) {
    const bool isPlace = key.type <= CodeType::District;
    try {
      if (isPlace && foreignPlaces.contains(key.parent))
        throw std::invalid_argument("its place stayed out");
      own.restore(key, id);
    } catch (const std::invalid_argument&) {
      if (isPlace) foreignPlaces.insert(id);
      ++left;
    }
  }
  return left;
}

}  // namespace tolvar::service
