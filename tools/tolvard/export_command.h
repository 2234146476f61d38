#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "service/iso_countries.h"
#include "tools/shared/exit_status.h"
#include "tools/tolvard/store_option.h"

namespace tolvar::tools {

/// `tolvard export`: writes a version as CSV that imports to the same. Throws std::exception; a
/// file that stood there stays then (see output_file.h).
class ExportCommand {
 public:
  void declare(CLI::App& app);
  ExitStatus run() const;

 private:
  std::string text() const;

  StoreOption _store;
  std::string _file = "-";
  std::string _codes = service::kIsoCountriesPath;
  std::optional<std::int64_t> _version;
};

}  // namespace tolvar::tools
