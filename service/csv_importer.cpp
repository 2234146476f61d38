#include "service/csv_importer.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "service/address_text.h"
#include "service/csv_reader.h"
#include "service/label_names.h"
#include "service/table_builder.h"

namespace tolvar::service {
namespace {

enum Column : std::size_t {
  Start,
  End,
  NetworkColumn,
  CountryColumn,
  Province,
  City,
  District,
  Extend,
  Oper,
  Nettype,
  Apn,
  Flable,
  kColumns,
};

constexpr std::array<std::string_view, kColumns> kColumnNames{
    "start",    "end",    "network", "country", "province", "city",
    "district", "extend", "oper",    "nettype", "apn",      "flable"};

bool equalsIgnoringCase(std::string_view text, std::string_view lowerCase) {
  return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                    [](char a, char b) {
                      return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
                    });
}

std::string allColumnNames() {
  std::string names;
  for (const std::string_view name : kColumnNames) {
    if (!names.empty()) names += ", ";
    names += name;
  }
  return names;
}

/// Where the header puts each column.
class Header {
 public:
  /// False, with faults, when the header cannot be used.
  bool read(const std::vector<CsvField>& fields, FaultList& faults) {
    bool isGood = true;
    for (std::size_t i = 0; i < fields.size(); ++i) isGood = place(fields[i], i, faults) && isGood;
    _size = fields.size();
    return isGood && checkRange(fields.front().offset, faults);
  }

  /// Number of fields of every row.
  std::size_t size() const { return _size; }

  bool has(Column column) const { return _index[column].has_value(); }

  /// The row's field in the column; an empty one when there is no such column.
  CsvField field(const std::vector<CsvField>& fields, Column column) const {
    return _index[column] ? fields[*_index[column]] : CsvField();
  }

 private:
  bool place(const CsvField& field, std::size_t index, FaultList& faults) {
    for (std::size_t column = 0; column < kColumns; ++column) {
      if (!equalsIgnoringCase(field.text, kColumnNames[column])) continue;
      if (_index[column]) {
        faults.add(field.offset, "column " + quoted(field.text) + " stands twice in the header");
        return false;
      }
      _index[column] = index;
      return true;
    }
    faults.add(field.offset,
               "unknown column " + quoted(field.text) + "; expected one of " + allColumnNames());
    return false;
  }

  bool checkRange(std::size_t offset, FaultList& faults) const {
    if (has(NetworkColumn) && (has(Start) || has(End))) {
      faults.add(offset,
                 "columns network and start/end exclude each other; expected one of the two");
      return false;
    }
    if (has(NetworkColumn) || (has(Start) && has(End))) return true;
    const char* missing = has(Start) ? "end" : has(End) ? "start" : nullptr;
    faults.add(offset, missing == nullptr
                           ? std::string("no column says which addresses a row is for; "
                                         "expected start and end, or network")
                           : std::string("missing column ") + missing +
                                 "; expected start and end, or network");
    return false;
  }

  std::array<std::optional<std::size_t>, kColumns> _index{};
  std::size_t _size = 0;
};

/// Reads rows into a builder.
class RowReader {
 public:
  RowReader(const Header& header, TableBuilder& builder) : _header(header), _builder(builder) {}

  void read(const std::vector<CsvField>& fields) {
    if (fields.size() != _header.size()) {
      faults().add(fields.front().offset, "expected " + std::to_string(_header.size()) +
                                              " fields as the header has, found " +
                                              std::to_string(fields.size()));
      return;
    }
    TableBuilder::Row row;
    row.offset = static_cast<std::uint32_t>(fields.front().offset);
    const bool isRange =
        _header.has(NetworkColumn) ? readNetwork(fields, row) : readBounds(fields, row);
    const bool isLabel = readLabel(_header.field(fields, Flable), row);
    readPlace(fields, row);
    row.extend = attribute(fields, Extend, CodeType::Extend);
    row.oper = attribute(fields, Oper, CodeType::Oper);
    row.nettype = attribute(fields, Nettype, CodeType::Nettype);
    row.apn = attribute(fields, Apn, CodeType::Apn);
    if (isRange && isLabel) _builder.add(row);
  }

 private:
  FaultList& faults() { return _builder.faults(); }

  bool readBounds(const std::vector<CsvField>& fields, TableBuilder::Row& row) {
    const CsvField start = _header.field(fields, Start);
    const CsvField end = _header.field(fields, End);
    const bool isStart = readAddress(start.text, start.offset, "start", &row.startIP, faults());
    const bool isEnd = readAddress(end.text, end.offset, "end", &row.endIP, faults());
    return isStart && isEnd && checkOrder(row.startIP, row.endIP, start.offset, faults());
  }

  bool readNetwork(const std::vector<CsvField>& fields, TableBuilder::Row& row) {
    const CsvField field = _header.field(fields, NetworkColumn);
    const auto network = parseNetwork(field.text);
    if (!network) {
      faults().add(field.offset, "network " + quoted(field.text) +
                                     " is no IPv4 network; expected a.b.c.d/n with n from 0 to 32");
      return false;
    }
    const std::uint32_t base = network->address & ~network->hostMask;
    if (base != network->address) {
      const std::string_view length = field.text.substr(field.text.find('/'));
      faults().add(field.offset, "network " + quoted(field.text) + " has host bits set; expected " +
                                     formatIPv4(base) + std::string(length));
      return false;
    }
    row.startIP = base;
    row.endIP = base | network->hostMask;
    return true;
  }

  bool readLabel(const CsvField& field, TableBuilder::Row& row) {
    if (field.text.empty()) return true;
    const auto label = std::find(kLabelNames.begin(), kLabelNames.end(), field.text);
    const auto number = parseNumber(field.text, kLabelNames.size());
    if (label != kLabelNames.end()) {
      row.flable = static_cast<std::uint32_t>(label - kLabelNames.begin() + 1);
    } else if (number && *number != 0) {
      row.flable = *number;
    } else {
      faults().add(field.offset, "flable " + quoted(field.text) +
                                     " is no label; expected a label text such as FROM_QK, or its "
                                     "number from 1 to 15");
      return false;
    }
    return true;
  }

  /// Goes down no further than the last level that has a name.
  void readPlace(const std::vector<CsvField>& fields, TableBuilder::Row& row) {
    const std::array<CsvField, 4> levels{
        _header.field(fields, CountryColumn), _header.field(fields, Province),
        _header.field(fields, City), _header.field(fields, District)};
    std::size_t depth = levels.size();
    while (depth > 0 && levels[depth - 1].text.empty()) --depth;
    NameTable& names = _builder.names();
    row.place = names.nowhere();
    for (std::size_t i = 0; i < depth; ++i) {
      row.place = i == 0 ? names.country(levels[i].text, levels[i].offset)
                         : names.placeBelow(row.place, levels[i].text, levels[i].offset);
    }
  }

  NameTable::Handle attribute(const std::vector<CsvField>& fields, Column column, CodeType type) {
    const CsvField field = _header.field(fields, column);
    return _builder.names().attribute(type, field.text, field.offset);
  }

  const Header& _header;
  TableBuilder& _builder;
};

}  // namespace

ImportResult importCsv(const TextSource& source, const ImportOptions& options) {
  const IsoCountries countries = IsoCountries::load(options.isoCountriesPath);
  TableBuilder builder(source, countries);
  CsvReader reader(source, skipLeadingComments(source), builder.faults());
  std::vector<CsvField> fields;
  Header header;
  const bool isRow = reader.next(fields);
  if (!builder.faults().isEmpty()) {
    // The header itself cannot be split; what follows is none.
  } else if (!isRow) {
    builder.faults().add(source.begin(),
                         "the file is empty; expected a header line that names columns, or lines "
                         "start,end,country code");
  } else if (header.read(fields, builder.faults())) {
    RowReader rows(header, builder);
    while (reader.next(fields)) rows.read(fields);
  }
  return builder.finish(options.ids);
}

}  // namespace tolvar::service
