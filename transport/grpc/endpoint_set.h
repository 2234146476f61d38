#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "transport/grpc/endpoint.h"

namespace tolvar {

/// Index of the server that `key` chooses among `count` (at least 1) servers. Keys that follow each
/// other spread evenly.
std::size_t chosenIndex(std::int64_t key, std::size_t count) noexcept;

/// The servers behind one object name, at least one. Immutable; any thread.
class EndpointSet {
 public:
  using Endpoints = std::vector<std::shared_ptr<Endpoint>>;

  explicit EndpointSet(Endpoints endpoints) : _endpoints(std::move(endpoints)) {}

  const Endpoint& first() const noexcept { return *_endpoints.front(); }

  /// The server that `key` chooses, or the next one after it that is not known to be down and has a
  /// connection. Those that have none get 150 ms in all to make one, the chosen one 100 of them.
  /// Without any connection the first one that is not known to be down; when all are, the chosen
  /// one.
  std::shared_ptr<Endpoint> select(std::int64_t key) const;

  /// All servers from the chosen one on, those known to be down last.
  Endpoints ordered(std::int64_t key) const;

 private:
  const Endpoints _endpoints;
};

}  // namespace tolvar
