#include "service/importer.h"

#include <string_view>

#include "service/country_importer.h"
#include "service/csv_importer.h"

namespace tolvar::service {
namespace {

/// The first line that is neither blank nor begins with '#'.
std::string_view firstLine(const TextSource& source) {
  std::string_view rest = source.text().substr(skipLeadingComments(source));
  return trimmed(rest.substr(0, rest.find('\n')));
}

/// No column name begins with a digit, and every address does.
bool looksLikeData(std::string_view line) {
  return !line.empty() && line.front() >= '0' && line.front() <= '9';
}

}  // namespace

ImportResult importTable(const std::string& path, const ImportOptions& options) {
  return importTable(TextSource::load(path, kMaxImportBytes), options);
}

ImportResult importTable(const TextSource& source, const ImportOptions& options) {
  if (looksLikeData(firstLine(source))) return importCountries(source, options);
  return importCsv(source, options);
}

}  // namespace tolvar::service
