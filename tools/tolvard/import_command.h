#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "service/import_guard.h"
#include "service/importer.h"
#include "tools/shared/exit_status.h"
#include "tools/tolvard/store_option.h"

namespace tolvar::tools {

/// `tolvard import`: makes a file the version that is served.
class ImportCommand {
 public:
  void declare(CLI::App& app);

  /// Result to standard output, warnings and refusals to standard error. Throws std::exception when
  /// the file cannot be imported or the store not be written; nothing is changed then.
  ExitStatus run();

  enum class Outcome { Imported, Importable, Unchanged, Refused };

 private:
  void readStore();
  void readFile();
  void makeTable();
  void checkWire() const;
  std::optional<service::StoredVersion> store();
  std::vector<std::string> warnings() const;
  ExitStatus report(Outcome outcome, const std::optional<service::StoredVersion>& stored) const;
  void printRefusal() const;
  std::string differences() const;

  StoreOption _store;
  std::string _file;
  std::string _codes = service::kIsoCountriesPath;
  std::size_t _keep = 5;
  bool _force = false;
  bool _dryRun = false;
  bool _json = false;

  // What the run finds out, in this order.
  std::optional<service::StoredVersion> _served;
  std::shared_ptr<const service::TableVersion> _servedTable;  ///< null without one
  service::ImportOptions _options;
  std::size_t _foreignIds = 0;
  service::ImportResult _imported;
  std::optional<service::TableVersion> _table;
  service::ImportComparison _comparison;
};

}  // namespace tolvar::tools
