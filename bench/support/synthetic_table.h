#pragma once

#include <cstddef>
#include <cstdint>

#include "records/records.h"

namespace tolvar_bench {

/// A made-up IP table that is as unpleasant as real ones: ranges of very mixed sizes, holes between
/// some of them, and a few hundred /16 blocks that hold a large part of all ranges.
///
/// 1.0.0.0 to 223.255.255.255 is cut at `ranges` distinct addresses. `crowdedShare` of the cuts
/// fall into `crowdedBlocks` /16 blocks, the others anywhere. Three quarters of the cuts are
/// multiples of 256, a fifth multiples of 16, the rest any address; where a pattern has no address
/// left the next finer one is used. Every range begins at a cut and ends before the next, except
/// that `holeShare` of them end early, somewhere in between. The attributes of each are one of
/// `tuples` distinct combinations, drawn evenly.
struct SyntheticOptions {
  std::size_t ranges = 524288;
  std::uint32_t tuples = 86000;
  double crowdedShare = 0.4;
  std::uint32_t crowdedBlocks = 512;
  double holeShare = 0.1;
  std::uint64_t seed = 1;
};

/// Exactly `options.ranges` ranges in order, without overlaps. The same options give the same
/// table on every machine. Throws std::invalid_argument when there are more ranges than the space
/// has room for.
ravel::vIPProperty makeSyntheticTable(const SyntheticOptions& options);

/// Place code of the i-th combination of the generator: country, province, city and district ids
/// nest as decimal prefixes.
std::int64_t syntheticPlace(std::uint32_t i) noexcept;

}  // namespace tolvar_bench
