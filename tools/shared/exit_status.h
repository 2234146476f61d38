#pragma once

namespace tolvar::tools {

/// Exit statuses of the programs.
enum ExitStatus : int {
  kExitDone = 0,    ///< done, or nothing to do
  kExitNo = 1,      ///< done, and the answer is no: not found, not come, damaged, refused
  kExitFailed = 2,  ///< nothing was done: a bad flag, a bad file, no space, no shared memory
};

}  // namespace tolvar::tools
