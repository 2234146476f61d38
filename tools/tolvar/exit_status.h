#pragma once

namespace tolvar::tools {

/// Exit statuses of the tool.
enum ExitStatus : int {
  kExitAnswered = 0,    ///< lookup: every address was found; watch: what was waited for came
  kExitUnanswered = 1,  ///< lookup: at least one was not found or is no address; watch: it did not
  kExitFailed = 2,      ///< nothing was done: a bad flag, a bad table, no shared memory
};

}  // namespace tolvar::tools
