#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/crash/process_figures.h"
#include "tests/crash/soak_control.h"
#include "tests/crash/soak_worker.h"
#include "tests/support/shm_keys.h"
#include "tests/support/temp_dir.h"

namespace tolvar_test {

struct SoakOptions {
  std::int64_t millis = 0;  ///< length of the run; 0: until `kills` are done
  int kills = 0;            ///< ends the run after as many; 0: only time ends it
  int processes = 16;
  int publishMillis = 1000;  ///< between two versions of the service
  int killMillis = 5000;     ///< between two kills, on average
  std::uint64_t seed = 1;
  bool small = false;    ///< segments of a few megabytes: more publications a second
  bool verbose = false;  ///< output of the processes is shown
};

/// Runs processes on one image, kills them at random times, looks at the image after every kill and
/// at what the processes take up all the time. Used by one thread.
class SoakSupervisor {
 public:
  explicit SoakSupervisor(const SoakOptions& options);
  ~SoakSupervisor();

  /// True when nothing was wrong. Prints what was done, and everything that was wrong.
  bool run();

 private:
  struct Worker {
    SoakRole role = SoakRole::reader;
    pid_t process = 0;
  };
  /// The most that any process took up within a part of the run.
  struct Peak {
    std::size_t privateKib = 0;
    std::size_t descriptors = 0;
    std::size_t segments = 0;
  };

  void spawn(int line);
  bool finished(std::int64_t now) const;
  int chooseLine();
  void killOne();
  void lookForEnded();
  void checkImage();
  void checkHalf(key_t key, bool* ready);
  void sample();
  void endAll();
  void startOnceMore();
  void judgePeaks();
  void collectProblems();
  void printFigures(std::int64_t millis) const;
  void problem(const std::string& what);
  std::int64_t untilNextKill();

  const SoakOptions _options;
  std::mt19937_64 _random;
  WorkingDirectory _directory;
  ShmKeys _keys;
  SoakControlFile _control;
  std::vector<Worker> _workers;
  std::map<SoakRole, int> _kills;
  int _killed = 0;
  int _aimed = 0;
  int _imageChecks = 0;
  bool _everReady = false;
  std::vector<Peak> _samples;
  std::vector<std::string> _problems;
};

}  // namespace tolvar_test
