#pragma once

namespace tolvar::tools {

/// Exit statuses of tolvard.
enum ExitStatus : int {
  kExitDone = 0,     ///< done, or nothing to do
  kExitRefused = 1,  ///< an import was refused, or a check found damage
  kExitFailed = 2,   ///< nothing was done: a bad flag, a bad file, no space, an address in use
};

}  // namespace tolvar::tools
