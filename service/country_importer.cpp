#include "service/country_importer.h"

#include <algorithm>

#include "service/table_builder.h"

namespace tolvar::service {
namespace {

constexpr std::size_t kFields = 3;

/// Reads lines into a builder.
class CountryReader {
 public:
  CountryReader(const TextSource& source, const IsoCountries& countries, TableBuilder& builder)
      : _text(source.text()), _countries(countries), _builder(builder) {}

  void readLine(std::size_t begin, std::size_t end) {
    if (end > begin && _text[end - 1] == '\r') --end;
    const std::string_view line = trimmed(_text.substr(begin, end - begin));
    if (line.empty() || line.front() == '#') return;
    const auto commas = static_cast<std::size_t>(std::count(line.begin(), line.end(), ','));
    if (commas + 1 != kFields) {
      _builder.faults().add(begin, "expected 3 fields start,end,country code, found " +
                                       std::to_string(commas + 1) +
                                       "; a table with other columns begins with a header line");
      return;
    }
    readFields(begin, end);
  }

 private:
  struct Field {
    std::string_view text;
    std::size_t offset;
  };

  /// The field from `begin` up to a comma or `end`; `begin` moves behind it.
  Field takeField(std::size_t& begin, std::size_t end) const {
    const std::size_t stop = std::min(_text.find(',', begin), end);
    const std::string_view text = trimmed(_text.substr(begin, stop - begin));
    const std::size_t offset =
        text.empty() ? begin : static_cast<std::size_t>(text.data() - _text.data());
    begin = stop + 1;
    return {text, offset};
  }

  void readFields(std::size_t begin, std::size_t end) {
    TableBuilder::Row row;
    row.offset = static_cast<std::uint32_t>(begin);
    FaultList& faults = _builder.faults();
    const Field first = takeField(begin, end);
    const Field last = takeField(begin, end);
    const Field code = takeField(begin, end);
    bool isGood = readAddress(first.text, first.offset, "start", &row.startIP, faults);
    isGood = readAddress(last.text, last.offset, "end", &row.endIP, faults) && isGood;
    isGood = isGood && checkOrder(row.startIP, row.endIP, first.offset, faults);
    if (!findCountry(code, &row.place) || !isGood) return;
    _builder.add(row);
  }

  bool findCountry(const Field& code, NameTable::Handle* place) {
    // Neighbours often lie in one country.
    if (code.text != _lastCode) {
      if (code.text.size() != 2 || !_countries.findCode(code.text)) {
        _builder.faults().add(code.offset, "country code " + quoted(code.text) +
                                               " is none; expected two capital letters or ??");
        return false;
      }
      _lastPlace = _builder.names().country(code.text, code.offset);
      _lastCode = code.text;
    }
    *place = _lastPlace;
    return true;
  }

  const std::string_view _text;
  const IsoCountries& _countries;
  TableBuilder& _builder;
  std::string_view _lastCode;
  NameTable::Handle _lastPlace = 0;
};

}  // namespace

ImportResult importCountries(const TextSource& source, const ImportOptions& options) {
  const IsoCountries countries = IsoCountries::load(options.isoCountriesPath);
  TableBuilder builder(source, countries);
  CountryReader reader(source, countries, builder);
  const std::string_view text = source.text();
  for (std::size_t begin = source.begin(); begin < text.size() && !builder.faults().isFull();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    reader.readLine(begin, end);
    begin = end + 1;
  }
  return builder.finish(options.ids);
}

}  // namespace tolvar::service
