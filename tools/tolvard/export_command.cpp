#include "tools/tolvard/export_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "service/csv_exporter.h"
#include "tools/tolvard/text_output.h"

namespace tolvar::tools {
namespace {

using service::TableStore;

/// Replaces the file in one step.
void writeWhole(const std::string& path, const std::string& text) {
  const std::string temporary = path + "." + std::to_string(getpid()) + ".new";
  errno = 0;
  std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  std::error_code error;
  if (!file) {
    error = std::error_code(errno, std::generic_category());
  } else {
    std::filesystem::rename(temporary, path, error);
  }
  if (!error) return;
  std::error_code ignored;
  std::filesystem::remove(temporary, ignored);
  throw std::runtime_error(path + ": cannot be written: " + error.message());
}

}  // namespace

void ExportCommand::declare(CLI::App& app) {
  app.add_option("FILE", _file, "Where to write (default: standard output)");
  _store.declare(app);
  app.add_option("--version", _version, "The version to write (default: the one served)")
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
  if (_file == "-")
    print(text());
  else
    writeWhole(_file, text());
  return kExitDone;
}

}  // namespace tolvar::tools
