#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "records/records.h"

namespace tolvar_bench {

/// Addresses to ask for; host order. The same arguments give the same addresses on every machine.

/// Any of the 2^32 addresses, evenly.
std::vector<std::uint32_t> uniformQueries(std::size_t count, std::uint64_t seed);

/// A range of the table, evenly, then an address of it, evenly: every query hits.
std::vector<std::uint32_t> queriesOverRanges(std::span<const ravel::IPProperty> table,
                                             std::size_t count, std::uint64_t seed);

/// Like queriesOverRanges, but the k-th most popular range is drawn with a weight of 1 / k; which
/// ranges are popular is random.
std::vector<std::uint32_t> zipfQueries(std::span<const ravel::IPProperty> table, std::size_t count,
                                       std::uint64_t seed);

/// What an access log looks like: clients come with zipfQueries' weights and stay for 1 to 32
/// requests, interleaved with up to 64 others.
std::vector<std::uint32_t> logLikeQueries(std::span<const ravel::IPProperty> table,
                                          std::size_t count, std::uint64_t seed);

}  // namespace tolvar_bench
