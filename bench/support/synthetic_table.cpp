#include "bench/support/synthetic_table.h"

#include <algorithm>
#include <random>
#include <stdexcept>
#include <vector>

#include "bench/support/random.h"

namespace tolvar_bench {
namespace {

constexpr std::uint32_t kFirstBlock = 1u << 8;  // 1.0
constexpr std::uint32_t kEndBlock = 224u << 8;  // 224.0
constexpr std::uint32_t kBlockSize = 1u << 16;

std::vector<std::uint32_t> chooseBlocks(const SyntheticOptions& options, Random* random) {
  std::vector<std::uint32_t> blocks(kEndBlock - kFirstBlock);
  for (std::uint32_t i = 0; i < blocks.size(); ++i) blocks[i] = kFirstBlock + i;
  for (std::uint32_t i = 0; i < options.crowdedBlocks; ++i) {
    std::swap(blocks[i], blocks[i + random->below(blocks.size() - i)]);
  }
  blocks.resize(options.crowdedBlocks);
  return blocks;
}

/// Low bits that a cut leaves zero. `round` counts how often drawing has come back short.
std::uint32_t alignmentMask(std::uint64_t draw, unsigned round) {
  unsigned bits = draw < 75 ? 8 : draw < 95 ? 4 : 0;
  bits -= std::min(bits, 2 * round);
  return ~((1u << bits) - 1u);
}

std::uint32_t drawCut(const SyntheticOptions& options, const std::vector<std::uint32_t>& blocks,
                      unsigned round, Random* random) {
  const bool crowded = random->unit() < options.crowdedShare && !blocks.empty();
  const std::uint64_t block = crowded ? blocks[random->below(blocks.size())]
                                      : kFirstBlock + random->below(kEndBlock - kFirstBlock);
  const auto address = static_cast<std::uint32_t>(block * kBlockSize + random->below(kBlockSize));
  return address & alignmentMask(random->below(100), round);
}

std::vector<std::uint32_t> drawCuts(const SyntheticOptions& options, Random* random) {
  const std::vector<std::uint32_t> blocks = chooseBlocks(options, random);
  std::vector<std::uint32_t> cuts;
  for (unsigned round = 0; cuts.size() < options.ranges; ++round) {
    const std::size_t missing = options.ranges - cuts.size();
    for (std::size_t i = 0; i < missing + missing / 8; ++i) {
      cuts.push_back(drawCut(options, blocks, round / 4, random));
    }
    std::sort(cuts.begin(), cuts.end());
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
  }
  // Drop the surplus evenly, not at one end.
  for (std::size_t surplus = cuts.size() - options.ranges; surplus > 0; --surplus) {
    std::swap(cuts[random->below(cuts.size())], cuts.back());
    cuts.pop_back();
  }
  std::sort(cuts.begin(), cuts.end());
  return cuts;
}

void setAttributes(std::uint32_t tuple, ravel::IPProperty* range) {
  range->place = syntheticPlace(tuple);
  range->extend = tuple % 7;
  range->oper = 1 + tuple % 211;
  range->nettype = 1 + tuple % 5;
  range->apn = tuple % 3;
  range->flable = 1 + tuple % 15;
}

}  // namespace

std::int64_t syntheticPlace(std::uint32_t i) noexcept {
  const std::int64_t country = 1 + i % 240;
  const std::int64_t province = (i / 240) % 30;
  const std::int64_t city = (i / 7200) % 40;
  const std::int64_t district = i / 288000;
  return ((country * 1000 + province) * 1000 + city) * 1000 + district;
}

ravel::vIPProperty makeSyntheticTable(const SyntheticOptions& options) {
  const std::uint64_t space = std::uint64_t{kEndBlock - kFirstBlock} * kBlockSize;
  if (options.ranges > space / 4 || options.crowdedBlocks > kEndBlock - kFirstBlock ||
      options.tuples == 0) {
    throw std::invalid_argument("the synthetic table does not fit into the address space");
  }
  Random random(options.seed);
  const std::vector<std::uint32_t> cuts = drawCuts(options, &random);
  ravel::vIPProperty table(options.ranges);
  for (std::size_t i = 0; i < table.size(); ++i) {
    const std::uint32_t next = i + 1 < cuts.size() ? cuts[i + 1] : kEndBlock * kBlockSize;
    std::uint32_t last = next - 1;
    if (random.unit() < options.holeShare) {
      last = cuts[i] + static_cast<std::uint32_t>(random.below(last - cuts[i] + 1));
    }
    table[i].startIP = cuts[i];
    table[i].endIP = last;
    setAttributes(static_cast<std::uint32_t>(random.below(options.tuples)), &table[i]);
  }
  return table;
}

}  // namespace tolvar_bench
