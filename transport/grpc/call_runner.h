#pragma once

#include <grpcpp/client_context.h>
#include <grpcpp/support/status.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

#include "remote/proxies.h"
#include "transport/grpc/call_registry.h"
#include "transport/grpc/endpoint_set.h"

namespace tolvar {

/// What a call is and how it may be made.
struct CallPlan {
  std::string operation;               ///< for error texts
  std::chrono::milliseconds deadline;  ///< of the whole call, connecting included
  bool repeatable;                     ///< may be sent again when it is unknown whether it arrived
};

/// Name of a gRPC status code as people search for it, "DEADLINE_EXCEEDED" for example.
std::string statusName(grpc::StatusCode code);

/// Thrown by an attempt whose request cannot be told on the wire.
class UnsendableRequest : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Makes one call: tries `servers` in order, and again until the deadline while none can be
/// reached. Blocks; ends within milliseconds when the call's family is cancelled.
///
/// Every entry of `context` travels as binary metadata "tolvar-ctx-<key>-bin" (keys: a-z, 0-9, "_",
/// "-", "."); `response`, if not null, gets the entries that the server sent in the same form.
///
/// `attempt` sends the request once and fills the answer; what it throws while decoding is reported
/// like a failed call. Every failure is a ZU_Exception "<operation> at <endpoint>: <STATUS> after
/// <n> ms: <cause>".
class CallRunner {
 public:
  using Attempt = std::function<grpc::Status(Endpoint& server, grpc::ClientContext& context)>;

  CallRunner(CallRegistry& registry, CallRegistry::Family family)
      : _registry(registry), _family(family) {}

  void run(const CallPlan& plan, const EndpointSet::Endpoints& servers,
           const ravel::CallContext& context, ravel::CallContext* response, const Attempt& attempt);

 private:
  CallRegistry& _registry;
  const CallRegistry::Family _family;
};

}  // namespace tolvar
