#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>
#include <string_view>

namespace tolvar_test {

/// How a forked process ended.
struct Ending {
  bool killed = false;    ///< by SIGKILL
  bool finished = false;  ///< its body returned
  int points = 0;         ///< changes of shared memory that it passed or stopped at
  std::string at;         ///< name of the last of them
  std::string problem;    ///< text of what the body threw, or what else went wrong
  std::string output;     ///< of a process that did not finish, the end of it
};

/// Whether a point of this name counts.
using PointFilter = bool (*)(std::string_view what);
inline bool everyPoint(std::string_view) { return true; }

/// A fork of this process, which must have one thread only. The fork runs `body` and ends without
/// destructors of the test. With `killAt` it is stopped by SIGKILL right before its `killAt`-th
/// change of shared memory among those that `counts` takes, counted from 1: lock, mappings and
/// memory are then left to the system, as on the worst day.
class Forked {
 public:
  explicit Forked(const std::function<void()>& body, int killAt = 0,
                  PointFilter counts = everyPoint);
  ~Forked();
  Forked(const Forked&) = delete;
  Forked& operator=(const Forked&) = delete;

  /// Waits until the fork calls `pause`; false when it has ended instead or takes too long.
  bool awaitPause();
  /// Lets it go on.
  void resume();

  /// Waits for its end and kills it when that takes too long.
  Ending await(int milliseconds = 60000);

  /// In the fork: waits until the test calls `resume`.
  static void pause();

 private:
  struct Notes;
  [[noreturn]] static void live(const std::function<void()>& body, int killAt);
  static void passPoint(const char* what);

  static Notes* notes;  ///< of this process when it is a fork, of the last one in the test

  Notes* _notes;
  pid_t _process = -1;
  int _alive = -1;  ///< end of a pipe whose other end the fork holds
  std::string _outputFile;
};

}  // namespace tolvar_test
