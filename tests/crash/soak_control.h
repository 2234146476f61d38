#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "tests/crash/crash_host.h"

namespace tolvar_test {

inline constexpr int kMostWorkers = 64;

/// Rows that every version has, and so may be asked for at any time.
inline constexpr std::size_t kSoakRows = 1000;

/// What a version of a soak holds. Versions differ in length, and from the twentieth on every tenth
/// has more names than a segment is first made for.
inline Version soakVersion(std::uint32_t number) {
  const bool large = number >= 20 && number % 10 == 0;
  return {number, kSoakRows + number % 64, large ? std::size_t{2100} : std::size_t{3}};
}

/// One process's line in the control file. It outlives the processes that follow one another in the
/// line, which count on.
struct SoakLine {
  std::atomic<std::uint64_t> lookups;
  std::atomic<std::uint64_t> wrong;
  std::atomic<std::uint64_t> starts;
  std::atomic<std::uint64_t> failedStarts;
  std::atomic<std::uint64_t> publications;
  char problem[512];  ///< the first one
};

/// What the supervisor and the processes of a soak share: a file that all of them map.
struct SoakControl {
  std::atomic<std::uint32_t> version;  ///< that the service has now
  std::atomic<bool> stop;
  std::array<SoakLine, kMostWorkers> lines;
};

/// The control file in memory; made with zeros when it is not there.
class SoakControlFile {
 public:
  explicit SoakControlFile(const std::string& path);
  ~SoakControlFile();
  SoakControlFile(const SoakControlFile&) = delete;
  SoakControlFile& operator=(const SoakControlFile&) = delete;

  SoakControl& operator*() const { return *_control; }
  SoakControl* operator->() const { return _control; }

 private:
  SoakControl* _control;
};

}  // namespace tolvar_test
