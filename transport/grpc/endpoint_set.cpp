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
  const std::size_t count = _endpoints.size();
  const std::size_t first = chosenIndex(key, count);
  if (count == 1) return _endpoints.front();
  bool mayProbe = true;
  for (std::size_t i = 0; i < count; ++i) {
    const std::shared_ptr<Endpoint>& endpoint = _endpoints[(first + i) % count];
    if (mayProbe && !endpoint->isReady() && !endpoint->knownDown()) {
      endpoint->probe(kProbeLimit);
      mayProbe = endpoint->isReady() || endpoint->knownDown();
    }
    if (!endpoint->knownDown()) return endpoint;
  }
  return _endpoints[first];
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
