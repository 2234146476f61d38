// Files whose form has to be told from their content.

#include <string>

#include "fuzz/import_checks.h"
#include "fuzz/memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const tolvar_fuzz::MemoryFile file(std::string(data, data + size));
  tolvar_fuzz::checkImport(
      [&] { return tolvar::service::importTable(file.path(), tolvar_fuzz::importOptions()); });
  return 0;
}
