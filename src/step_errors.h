#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "include/TolvarAPI.h"

namespace tolvar {

/// What a client does again after it failed.
enum class Step { Initialize, Configuration, ShareMemory, ChangeCheck, Download, CodeTables };

/// The last failure of every step, and whether the step has succeeded since. Has no lock.
class StepErrors {
 public:
  /// Notes that `step` failed at the wall time `now`. Called where a failure is being dealt with,
  /// so it lets none of its own out.
  void failed(Step step, const char* what, std::time_t now) noexcept;

  /// Whatever made `step` fail is over.
  void succeeded(Step step) noexcept;

  /// True from a failure of `step` until it succeeds.
  bool goesOn(Step step) const noexcept { return _last[static_cast<std::size_t>(step)].goesOn; }

  /// Sets what `*status` says about failures: the last of those that are not over, or else the last
  /// of all.
  void show(TolvarStatus* status) const;

 private:
  struct Failure {
    std::string text;
    std::time_t at = 0;
    std::uint64_t number = 0;  ///< in the order in which they came; wall clocks are set back
    bool goesOn = false;
  };

  static constexpr std::size_t kSteps = 6;
  std::array<Failure, kSteps> _last;
  std::uint64_t _failures = 0;
};

}  // namespace tolvar
