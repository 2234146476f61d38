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

  /// Opens it. Throws service::StoreError.
  service::TableStore open(service::TableStore::Mode mode) const;
};

/// A version as the commands' --json shows it.
nlohmann::json jsonOf(const service::StoredVersion& version);

}  // namespace tolvar::tools
