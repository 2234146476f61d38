#pragma once

#include <string>
#include <vector>

#include "tools/shared/exit_status.h"
#include "tools/tolvard/store_option.h"

namespace tolvar::tools {

/// `tolvard conf get` and `tolvard conf set`: what clients are configured with. Throw
/// std::exception.
class ConfCommand {
 public:
  void declare(CLI::App& app);
  ExitStatus run() const;

 private:
  ExitStatus set() const;
  void show(const ravel::ClientConf& conf) const;

  StoreOption _store;
  std::vector<std::string> _assignments;
  bool _json = false;
  CLI::App* _set = nullptr;
};

}  // namespace tolvar::tools
