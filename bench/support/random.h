#pragma once

#include <cstdint>
#include <random>

namespace tolvar_bench {

/// Random numbers that are the same everywhere: the standard fixes the engine's numbers, but not
/// what its distributions make of them.
class Random {
 public:
  explicit Random(std::uint64_t seed) : _engine(seed) {}

  std::uint64_t bits() { return _engine(); }

  /// 0 to bound - 1, evenly; bound is 1 to 2^32.
  std::uint64_t below(std::uint64_t bound) { return ((_engine() >> 32) * bound) >> 32; }

  /// 0 to below 1.
  double unit() { return static_cast<double>(_engine() >> 11) * 0x1.0p-53; }

 private:
  std::mt19937_64 _engine;
};

}  // namespace tolvar_bench
