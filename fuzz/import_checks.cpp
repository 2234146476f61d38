#include "fuzz/import_checks.h"

#include <algorithm>

#include "fuzz/memory_file.h"
#include "fuzz/require.h"
#include "service/csv_exporter.h"
#include "service/csv_importer.h"
#include "service/import_guard.h"

namespace tolvar_fuzz {
namespace {

using tolvar::service::ImportOptions;
using tolvar::service::ImportResult;
using tolvar::service::TableVersion;

constexpr const char* kCountries =
    R"({"3166-1":[{"alpha_2":"DE","alpha_3":"DEU","numeric":"276","name":"Germany"},)"
    R"({"alpha_2":"FR","alpha_3":"FRA","numeric":"250","name":"France"},)"
    R"({"alpha_2":"CZ","alpha_3":"CZE","numeric":"203","name":"Czechia","common_name":"Czechia"},)"
    R"({"alpha_2":"BO","alpha_3":"BOL","numeric":"068","name":"Bolivia, Plurinational State of"}]})";

bool sameCodes(const TableVersion& a, const TableVersion& b) {
  return std::equal(a.codes().begin(), a.codes().end(), b.codes().begin(), b.codes().end(),
                    [](const ravel::CodeInfo& x, const ravel::CodeInfo& y) {
                      return x.codeType == y.codeType && x.ID == y.ID && x.content == y.content;
                    });
}

}  // namespace

const ImportOptions& importOptions() {
  static const MemoryFile countries(kCountries);
  static const ImportOptions options = [] {
    ImportOptions made;
    made.isoCountriesPath = countries.path();
    return made;
  }();
  return options;
}

void checkImported(const ImportResult& result) {
  // Refuses ranges that are reversed or overlap.
  const TableVersion table(result.table, 1);
  const auto comparison = tolvar::service::compareImport(nullptr, table);
  const bool hasOrphans = std::any_of(
      comparison.objections.begin(), comparison.objections.end(),
      [](const std::string& objection) { return objection.find("code") != std::string::npos; });
  FUZZ_REQUIRE(!hasOrphans);

  const std::string text =
      tolvar::service::exportCsv(table, result.ids, importOptions().isoCountriesPath);
  ImportOptions options = importOptions();
  options.ids = tolvar::service::exportedIds(text);
  const ImportResult again =
      tolvar::service::importCsv(tolvar::service::TextSource("again", text), options);
  const TableVersion same(again.table, 1);
  FUZZ_REQUIRE(same.digest() == table.digest());
  FUZZ_REQUIRE(sameCodes(same, table));
}

void checkRefusal(const tolvar::service::ImportError& error) {
  FUZZ_REQUIRE(!error.faults().empty());
  FUZZ_REQUIRE(error.faults().size() <= tolvar::service::kMaxImportFaults + 1);
  const std::string text = error.what();
  for (const auto& fault : error.faults()) {
    FUZZ_REQUIRE(!fault.message.empty());
    FUZZ_REQUIRE((fault.line == 0) == (fault.column == 0));
    FUZZ_REQUIRE(text.find(fault.message) != std::string::npos);
  }
}

}  // namespace tolvar_fuzz
