#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

namespace tolvar {

/// Chooses how large the rows of a table are that has one for each attribute tuple, all of the same
/// size: the smallest that is enough for nearly all tuples. Used by one thread.
class RowSize {
 public:
  /// The largest there is, in bytes.
  static constexpr std::size_t kLargest = 256;

  /// One more tuple would need `bytes`.
  void count(std::size_t bytes) noexcept {
    for (std::size_t i = 0; i < kSizes.size(); ++i) _tooSmall[i] += bytes > kSizes[i] ? 1 : 0;
    ++_tuples;
  }

  struct Choice {
    std::size_t bytes;  ///< 32 to kLargest; rows touch no more cache lines than they have to
    std::size_t apart;  ///< tuples for which that is not enough
  };
  Choice choose() const noexcept {
    std::size_t i = 0;
    while (i + 1 < kSizes.size() && _tooSmall[i] > _tuples / kApartShare) ++i;
    return {kSizes[i], _tooSmall[i]};
  }

 private:
  static constexpr std::array<std::size_t, 5> kSizes = {32, 64, 128, 192, kLargest};

  /// Of this many tuples, one may need a larger row: few enough for the lookups of popular places,
  /// which nobody can tell beforehand, not to take the longer way.
  static constexpr std::size_t kApartShare = 4096;

  std::array<std::size_t, kSizes.size()> _tooSmall{};
  std::size_t _tuples = 0;
};

}  // namespace tolvar
