// Texts as tables with a header line.

#include "service/csv_importer.h"

#include "fuzz/import_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvar::service;
  const TextSource source("input", std::string(data, data + size));
  tolvar_fuzz::checkImport([&] { return importCsv(source, tolvar_fuzz::importOptions()); });
  return 0;
}
