#pragma once

#include <cstddef>

#include "bench/net_cases.h"

namespace tolvar_bench {

struct NetBenchOptions {
  std::size_t ranges = 524288;
  int hosts = 1000;
  int pages = 3;  ///< of each host
};

/// Writes docs/performance-network.md to standard output.
void printNetReport(const NetBenchOptions& options, const Figures& figures);

}  // namespace tolvar_bench
