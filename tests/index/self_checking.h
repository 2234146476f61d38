#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace tolvar_test {

/// A snapshot that shows whether it is read after its end, or half: every word says its version,
/// and destruction overwrites them.
class SelfChecking {
 public:
  explicit SelfChecking(std::uint64_t version) { _words.fill(version); }
  ~SelfChecking() {
    for (volatile std::uint64_t& word : _words) word = 0xDEADDEADDEADDEAD;
    destroyed.fetch_add(1);
  }
  SelfChecking(const SelfChecking&) = delete;
  SelfChecking& operator=(const SelfChecking&) = delete;

  std::uint64_t version() const { return _words[0]; }

  bool whole() const {
    for (const std::uint64_t word : _words) {
      if (word != _words[0] || word == 0xDEADDEADDEADDEAD) return false;
    }
    return true;
  }

  static inline std::atomic<int> destroyed{0};

 private:
  std::array<std::uint64_t, 32> _words;
};

}  // namespace tolvar_test

#ifdef TOLVAR_TEST_WITHOUT_MEMBARRIER
#define TOLVAR_HOLDER_SUITE SnapshotHolderWithoutMembarrier
#else
#define TOLVAR_HOLDER_SUITE SnapshotHolder
#endif
