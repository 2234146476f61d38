#pragma once

#include <string>

#include "remote/proxies.h"

namespace qel {

/// Makes proxies from object names. One communicator may serve several clients and must outlive
/// them; operations may be called from any thread.
class Communicator {
 public:
  virtual ~Communicator() = default;

  /// Fills `proxy` for the object `name`; names end in ".TolvarObj@tcp". Does not connect.
  /// Throws ZU_Exception when the name cannot be resolved.
  virtual void stringToProxy(const std::string& name, ravel::TolvarPrx& proxy) = 0;

  /// The same for names that end in ".FTolvarObj@tcp".
  virtual void stringToProxy(const std::string& name, ravel::FTolvarPrx& proxy) = 0;
};

}  // namespace qel
