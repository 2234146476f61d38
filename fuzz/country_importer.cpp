// Texts as tables of three columns: start, end, country code.

#include "service/country_importer.h"

#include "fuzz/import_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvar::service;
  const TextSource source("input", std::string(data, data + size));
  tolvar_fuzz::checkImport([&] { return importCountries(source, tolvar_fuzz::importOptions()); });
  return 0;
}
