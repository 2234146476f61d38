#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "bench/support/random.h"
#include "platform/huge_pages.h"
#include "records/records.h"
#include "src/index/tuple_numbers.h"

namespace tolvar_bench {

/// What one would write first: std::lower_bound over the 48-byte records by last address, then
/// the division of the place code.
class LowerBoundTable {
 public:
  explicit LowerBoundTable(std::span<const ravel::IPProperty> table) : _table(table) {}

  bool lookup(std::uint32_t ip, ravel::IPInfo* info) const noexcept {
    const auto below = [](const ravel::IPProperty& range, std::uint32_t address) {
      return range.endIP < address;
    };
    const auto found = std::lower_bound(_table.begin(), _table.end(), ip, below);
    if (found == _table.end() || found->startIP > ip) return false;
    *info = tolvar::infoOf(*found);
    return true;
  }

 private:
  std::span<const ravel::IPProperty> _table;
};

/// The limit that any index with a directory, leaves and tuples has: one word of a 65,536-word
/// directory, one line of `leafLines`, one tuple line, and the copy of the result, with no search
/// at all. Its answers mean nothing; which lines it reads depends on all bits of the address.
class NoSearch {
 public:
  NoSearch(std::size_t leafLines, std::uint32_t tuples)
      : _directory(65536), _leaves(leafLines), _tuples(tuples) {
    Random random(7);
    for (Line& leaf : _leaves) {
      for (std::uint32_t& word : leaf.words) {
        word = static_cast<std::uint32_t>(random.below(tuples));
      }
    }
    for (std::uint32_t i = 0; i < tuples; ++i) _tuples[i].info.district = i;
  }

  std::uint32_t tupleOf(std::uint32_t ip) const noexcept {
    const std::uint32_t mixed = (ip + _directory[ip >> 16]) * 0x9E3779B1u;
    const std::size_t line = (std::uint64_t{mixed} * _leaves.size()) >> 32;
    return _leaves[line].words[ip & 15u];
  }

  bool lookup(std::uint32_t ip, ravel::IPInfo* info) const noexcept {
    *info = _tuples[tupleOf(ip)].info;
    return true;
  }

  /// The same staged in groups.
  void lookupBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                   std::uint8_t* found) const noexcept {
    constexpr std::size_t kGroup = 128;
    std::uint32_t tuples[kGroup];
    for (std::size_t begin = 0; begin < ips.size(); begin += kGroup) {
      const std::size_t count = std::min(kGroup, ips.size() - begin);
      for (std::size_t i = 0; i < count; ++i) {
        tuples[i] = tupleOf(ips[begin + i]);
        __builtin_prefetch(&_tuples[tuples[i]]);
      }
      for (std::size_t i = 0; i < count; ++i) {
        infos[begin + i] = _tuples[tuples[i]].info;
        found[begin + i] = 1;
      }
    }
  }

 private:
  struct alignas(64) Line {
    std::uint32_t words[16];
  };
  struct alignas(64) Tuple {
    ravel::IPInfo info;
  };
  std::vector<std::uint32_t> _directory;
  // On large pages where the index is, or it would not be the limit.
  std::vector<Line, qel::HugePageAllocator<Line>> _leaves;
  std::vector<Tuple, qel::HugePageAllocator<Tuple>> _tuples;
};

}  // namespace tolvar_bench
