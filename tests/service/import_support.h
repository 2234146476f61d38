#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "service/country_importer.h"
#include "service/csv_importer.h"
#include "service/text_source.h"

namespace tolvar_test {

inline tolvar::service::ImportResult csv(const std::string& text,
                                         const tolvar::service::ImportOptions& options = {}) {
  return tolvar::service::importCsv(tolvar::service::TextSource("t.csv", text), options);
}

inline tolvar::service::ImportResult countries(const std::string& text) {
  return tolvar::service::importCountries(tolvar::service::TextSource("geoip", text), {});
}

/// Text of the ImportError that importing `text` ends in; empty when it succeeds.
inline std::string csvFault(const std::string& text) {
  try {
    csv(text);
  } catch (const tolvar::service::ImportError& error) {
    return error.what();
  }
  return "";
}

inline std::string countriesFault(const std::string& text) {
  try {
    countries(text);
  } catch (const tolvar::service::ImportError& error) {
    return error.what();
  }
  return "";
}

/// Name of an id in a table's codes, by linear scan; empty when it has none.
inline std::string nameOf(const tolvar::service::TableData& table, int codeType, std::int64_t id) {
  const auto entry = std::find_if(
      table.codes.begin(), table.codes.end(),
      [&](const ravel::CodeInfo& code) { return code.codeType == codeType && code.ID == id; });
  return entry == table.codes.end() ? "" : entry->content;
}

/// The one range that contains `ip`, by linear scan; null when there is none.
inline const ravel::IPProperty* rangeOf(const tolvar::service::TableData& table, std::uint32_t ip) {
  for (const ravel::IPProperty& range : table.ranges) {
    if (range.startIP <= ip && ip <= range.endIP) return &range;
  }
  return nullptr;
}

/// Place names of a range as lookups find them: every level from a decimal prefix of the place
/// code.
inline std::string placeNames(const tolvar::service::TableData& table,
                              const ravel::IPProperty& range) {
  return nameOf(table, 1, range.place / 1000000000) + "/" +
         nameOf(table, 2, range.place / 1000000) + "/" + nameOf(table, 3, range.place / 1000) +
         "/" + nameOf(table, 4, range.place);
}

}  // namespace tolvar_test
