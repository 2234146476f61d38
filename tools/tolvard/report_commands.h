#pragma once

#include <cstddef>

#include "tools/shared/exit_status.h"
#include "tools/tolvard/store_option.h"

namespace tolvar::tools {

/// `tolvard check`: looks for damage in the whole file. Throws std::exception when the file is not
/// there, cannot be read or belongs to another program.
class CheckCommand {
 public:
  void declare(CLI::App& app);
  ExitStatus run() const;

 private:
  ExitStatus report(const service::TableStore& store) const;

  StoreOption _store;
  bool _json = false;
};

/// `tolvard usage`: what clients reported. Throws std::exception.
class UsageCommand {
 public:
  void declare(CLI::App& app);
  ExitStatus run() const;

 private:
  StoreOption _store;
  std::size_t _top = 20;
  bool _json = false;
};

}  // namespace tolvar::tools
