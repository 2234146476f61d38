#pragma once

#include <array>
#include <cstddef>

#include "tests/support/shm_keys.h"

namespace tolvar_test {

/// Capacities of the nine regions in nodes.
using Capacities = std::array<std::size_t, 9>;

/// Small ones: room for `ranges` ranges and `names` names in each table.
Capacities smallCapacities(std::size_t ranges, std::size_t names);

/// The same, but the last table fills the segment up to the size that real ones are made with.
Capacities fullSizeCapacities(std::size_t ranges, std::size_t names);

/// Makes both data segments, laid, empty and not ready, with `slack` unused bytes behind the
/// regions. Throws std::runtime_error.
void plantSegments(const ShmKeys& keys, const Capacities& capacities, std::size_t slack = 0);

/// The same with small capacities, so that a test need not move the 70 MB of a segment of the usual
/// size.
void plantSmallSegments(const ShmKeys& keys, std::size_t ranges, std::size_t names);

}  // namespace tolvar_test
