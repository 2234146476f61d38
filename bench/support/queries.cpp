#include "bench/support/queries.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "bench/support/random.h"

namespace tolvar_bench {
namespace {

std::uint32_t addressOf(const ravel::IPProperty& range, Random* random) {
  const std::uint64_t size = std::uint64_t{range.endIP} - range.startIP + 1;
  return range.startIP + static_cast<std::uint32_t>(random->below(size));
}

/// Draws places of a random order of the table with weight 1 / place.
class ZipfRanges {
 public:
  ZipfRanges(std::span<const ravel::IPProperty> table, Random* random)
      : _table(table), _random(random), _order(table.size()), _weights(table.size()) {
    std::iota(_order.begin(), _order.end(), 0u);
    for (std::size_t i = 0; i + 1 < _order.size(); ++i) {
      std::swap(_order[i], _order[i + random->below(_order.size() - i)]);
    }
    double sum = 0;
    for (std::size_t i = 0; i < _weights.size(); ++i) {
      sum += 1.0 / static_cast<double>(i + 1);
      _weights[i] = sum;
    }
  }

  std::uint32_t address() {
    const double drawn = _random->unit() * _weights.back();
    const auto at = std::upper_bound(_weights.begin(), _weights.end() - 1, drawn);
    return addressOf(_table[_order[static_cast<std::size_t>(at - _weights.begin())]], _random);
  }

 private:
  std::span<const ravel::IPProperty> _table;
  Random* _random;
  std::vector<std::uint32_t> _order;
  std::vector<double> _weights;
};

}  // namespace

std::vector<std::uint32_t> uniformQueries(std::size_t count, std::uint64_t seed) {
  Random random(seed);
  std::vector<std::uint32_t> queries(count);
  for (std::uint32_t& query : queries) query = static_cast<std::uint32_t>(random.bits() >> 32);
  return queries;
}

std::vector<std::uint32_t> queriesOverRanges(std::span<const ravel::IPProperty> table,
                                             std::size_t count, std::uint64_t seed) {
  Random random(seed);
  std::vector<std::uint32_t> queries(count);
  for (std::uint32_t& query : queries)
    query = addressOf(table[random.below(table.size())], &random);
  return queries;
}

std::vector<std::uint32_t> zipfQueries(std::span<const ravel::IPProperty> table, std::size_t count,
                                       std::uint64_t seed) {
  Random random(seed);
  ZipfRanges ranges(table, &random);
  std::vector<std::uint32_t> queries(count);
  for (std::uint32_t& query : queries) query = ranges.address();
  return queries;
}

std::vector<std::uint32_t> logLikeQueries(std::span<const ravel::IPProperty> table,
                                          std::size_t count, std::uint64_t seed) {
  struct Client {
    std::uint32_t address = 0;
    std::uint64_t requests = 0;
  };
  Random random(seed);
  ZipfRanges ranges(table, &random);
  std::array<Client, 64> clients;
  std::vector<std::uint32_t> queries(count);
  for (std::uint32_t& query : queries) {
    Client& client = clients[random.below(clients.size())];
    if (client.requests == 0) client = {ranges.address(), 1 + random.below(32)};
    --client.requests;
    query = client.address;
  }
  return queries;
}

}  // namespace tolvar_bench
