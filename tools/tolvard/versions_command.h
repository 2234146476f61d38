#pragma once

#include <cstdint>
#include <string>

#include "tools/shared/exit_status.h"
#include "tools/tolvard/store_option.h"

namespace tolvar::tools {

/// `tolvard versions`: lists what the store holds. Throws std::exception.
class VersionsCommand {
 public:
  void declare(CLI::App& app);
  ExitStatus run() const;

 private:
  StoreOption _store;
  bool _json = false;
};

/// `tolvard rollback`: serves the content of an older version again. Throws std::exception.
class RollbackCommand {
 public:
  void declare(CLI::App& app);
  ExitStatus run() const;

 private:
  StoreOption _store;
  std::int64_t _version = 0;
  bool _json = false;
};

}  // namespace tolvar::tools
