#pragma once

#include <atomic>
#include <memory>

#include "service/lookup_service.h"
#include "tools/tolvard/server/download_gate.h"
#include "tools/tolvard/server/encoded_table.h"
#include "tools/tolvard/server/grpc_server.h"

namespace grpc {
class Service;
}

namespace tolvar {

/// What the handlers of both objects share. Outlives them.
struct ServingContext {
  ServingContext(std::shared_ptr<service::LookupService> lookup, const GrpcServerOptions& chosen)
      : service(std::move(lookup)), options(chosen), gate(chosen.maxDownloads, *chosen.clock) {}

  const std::shared_ptr<service::LookupService> service;
  const GrpcServerOptions options;
  DownloadGate gate;
  EncodedTableCache tables;
  std::atomic<std::uint64_t> refusedChecks{0};  ///< for want of a download place
  std::atomic<std::size_t> calls{0};            ///< begun and not yet sent to their end
  std::atomic<std::size_t> privateBytes{0};  ///< of pages that only one call uses, still being sent
};

/// Handlers of the main object and of the fast one. Every answer is computed on the transport's
/// thread that brought the request, without waiting for anything but short locks.
std::unique_ptr<grpc::Service> makeMainHandlers(ServingContext& context);
std::unique_ptr<grpc::Service> makeFastHandlers(ServingContext& context);

}  // namespace tolvar
