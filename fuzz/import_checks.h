#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "service/importer.h"

namespace tolvar_fuzz {

/// Options with a short list of countries, so that an import costs little. Made once.
const tolvar::service::ImportOptions& importOptions();

/// What every importer promises of what it lets through: ascending, disjoint ranges, names for all
/// ids used, and that the table exported and imported again is the same table.
void checkImported(const tolvar::service::ImportResult& result);

/// What every importer promises of a refusal: at least one fault, and not too many, each in the
/// text.
void checkRefusal(const tolvar::service::ImportError& error);

/// Imports with `import()` and checks what comes of it.
template <class Import>
void checkImport(Import import) {
  try {
    checkImported(import());
  } catch (const tolvar::service::ImportError& error) {
    checkRefusal(error);
  }
}

}  // namespace tolvar_fuzz
