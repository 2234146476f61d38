#include "tools/tolvard/store_option.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace tolvar::tools {

void StoreOption::declare(CLI::App& app) {
  app.add_option("--db", path, "The database file (default: tolvar.db in the working directory)")
      ->type_name("FILE");
}

bool StoreOption::exists() const {
  std::error_code ignored;
  return std::filesystem::exists(path, ignored);
}

service::TableStore StoreOption::open(service::TableStore::Mode mode) const {
  return service::TableStore(path, mode);
}

nlohmann::json jsonOf(const service::StoredVersion& version) {
  return {{"version", version.number}, {"timesTamp", version.timesTamp}, {"digest", version.digest},
          {"ranges", version.ranges},  {"addresses", version.addresses}, {"codes", version.codes},
          {"source", version.source},  {"createdAt", version.createdAt}};
}

}  // namespace tolvar::tools
