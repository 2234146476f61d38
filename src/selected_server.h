#pragma once

#include <cstdint>
#include <memory>

#include "platform/exception.h"

namespace tolvar {

/// The proxy of the server of `object` that `key` chooses. Throws qel::ZU_Exception when there is
/// none.
template <class Proxy>
std::shared_ptr<Proxy> selectedServer(Proxy& object, std::int64_t key) {
  std::shared_ptr<Proxy> server = object.selectServer(key);
  if (!server) throw qel::ZU_Exception("the communicator has no server of the service");
  return server;
}

}  // namespace tolvar
