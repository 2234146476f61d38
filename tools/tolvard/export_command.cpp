#include "tools/tolvard/export_command.h"

#include <CLI/CLI.hpp>
#include <stdexcept>

#include "service/csv_exporter.h"
#include "tools/tolvard/output_file.h"
#include "tools/tolvard/text_output.h"

namespace tolvar::tools {

using service::TableStore;

void ExportCommand::declare(CLI::App& app) {
  app.add_option("FILE", _file, "Where to write (default: standard output)");
  _store.declare(app);
  app.add_option("--version", _version, "The version to write (default: the one served)")
      ->check(versionNumberFault)
      ->type_name("N");
  app.add_option("--codes", _codes,
                 "Country names and numbers, the JSON file of the package iso-codes")
      ->type_name("FILE");
}

std::string ExportCommand::text() const {
  const TableStore store = _store.open(TableStore::Mode::ReadOnly);
  const auto version = _version ? store.find(*_version) : store.newest();
  if (!version) {
    throw std::runtime_error(_store.path +
                             (_version ? ": there is no version " + std::to_string(*_version) +
                                             "; `tolvard versions` lists them"
                                       : std::string(": there is no version to export")));
  }
  try {
    return service::exportCsv(*store.load(*version), store.ids(), _codes);
  } catch (const service::StoreError&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(_store.path + ": version " + std::to_string(version->number) +
                             " cannot be exported: " + error.what());
  }
}

ExitStatus ExportCommand::run() const {
  if (_file == "-") {
    print(text());
    return kExitDone;
  }
  if (_store.covers(_file)) {
    throw std::runtime_error(_file + ": belongs to the database " + _store.path +
                             ", which an export must not overwrite; name another file");
  }
  writeFile(_file, text());
  return kExitDone;
}

}  // namespace tolvar::tools
