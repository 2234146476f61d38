#include "transport/grpc/endpoint_set.h"

#include <algorithm>

namespace tolvar {
namespace {

// Below the 200 ms in which a call must end after it is cancelled.
constexpr std::chrono::milliseconds kProbeLimit{150};

}  // namespace

std::size_t chosenIndex(std::int64_t key, std::size_t count) noexcept {
  return static_cast<std::size_t>(static_cast<std::uint64_t>(key) % count);
}

std::shared_ptr<Endpoint> EndpointSet::select(std::int64_t key) const {
  if (_endpoints.size() == 1) return _endpoints.front();
  const Endpoints order = ordered(key);
  const auto until = std::chrono::steady_clock::now() + kProbeLimit;
  for (const std::shared_ptr<Endpoint>& endpoint : order) {
    if (endpoint->knownDown()) continue;
    // Most of the time is the chosen one's; a server that hangs must leave some to the others.
    const auto left = until - std::chrono::steady_clock::now();
    if (!endpoint->isReady())
      endpoint->probe(std::chrono::duration_cast<std::chrono::milliseconds>(left) * 2 / 3);
    if (endpoint->isReady() && !endpoint->knownDown()) return endpoint;
  }
  const auto likely = std::find_if(order.begin(), order.end(),
                                   [](const auto& endpoint) { return !endpoint->knownDown(); });
  return likely == order.end() ? _endpoints[chosenIndex(key, _endpoints.size())] : *likely;
}

EndpointSet::Endpoints EndpointSet::ordered(std::int64_t key) const {
  Endpoints order(_endpoints);
  const auto first = static_cast<std::ptrdiff_t>(chosenIndex(key, order.size()));
  std::rotate(order.begin(), order.begin() + first, order.end());
  std::stable_partition(order.begin(), order.end(),
                        [](const auto& endpoint) { return !endpoint->knownDown(); });
  return order;
}

}  // namespace tolvar
