#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "service/store/table_store.h"

namespace CLI {
class App;
}

namespace tolvar::tools {

/// Which database file a command works on.
struct StoreOption {
  std::string path = "tolvar.db";

  void declare(CLI::App& app);

  /// True when the file is there.
  bool exists() const;

  /// True when `file` is the database or one of the files that SQLite keeps next to it, whatever
  /// name or link it goes by.
  bool covers(const std::string& file) const;

  /// Opens it. Throws service::StoreError.
  service::TableStore open(service::TableStore::Mode mode) const;
};

/// Why `text` is no number of a version; empty when it is one.
std::string versionNumberFault(const std::string& text);

/// A version as the commands' --json shows it.
nlohmann::json jsonOf(const service::StoredVersion& version);

}  // namespace tolvar::tools
