#pragma once

#include <memory>
#include <string>
#include <vector>

#include "remote/proxies.h"
#include "transport/grpc/call_registry.h"
#include "transport/grpc/call_runner.h"
#include "transport/grpc/endpoint_set.h"
#include "transport/grpc/grpc_options.h"
#include "transport/grpc/grpc_process.h"
#include "transport/grpc/page_ahead.h"

namespace tolvar {

/// What all proxies of a communicator share; they keep it alive.
struct GrpcCore {
  explicit GrpcCore(GrpcOptions chosen);

  const GrpcProcess process;
  const GrpcOptions options;
  /// Chooses the server that calls without a choice try first; random, so that clients spread.
  const std::int64_t spreadKey;
  CallRegistry calls;
};

/// The servers that a proxy calls, and the family that its calls belong to.
struct GrpcTarget {
  /// A new family. `pageMethod` is the one of page_request.h that these servers answer pages with.
  GrpcTarget(std::shared_ptr<GrpcCore> sharedCore, std::shared_ptr<const EndpointSet> allServers,
             const char* pageMethod);

  std::shared_ptr<GrpcCore> core;
  std::shared_ptr<const EndpointSet> servers;
  CallRegistry::Family family;
  std::shared_ptr<PageAhead> ahead;  ///< the family's
  std::shared_ptr<Endpoint> bound;   ///< null: any of `servers`

  /// The same, bound to the server that `key` chooses.
  GrpcTarget select(std::int64_t key) const;

  void call(const CallPlan& plan, const ravel::CallContext& context, ravel::CallContext* response,
            const CallRunner::Attempt& attempt) const;

  /// Makes the family's calls under way fail; in a forked child, where there are none, nothing.
  void cancel() const;
};

/// The main object over gRPC. A call through a proxy without a chosen server tries the servers one
/// after the other; one through a chosen server stays with it.
class GrpcTolvarProxy final : public ravel::TolvarProxy {
 public:
  explicit GrpcTolvarProxy(GrpcTarget target) : _target(std::move(target)) {}

  ravel::TolvarPrx selectServer(std::int64_t key) override;
  void cancelCalls() override;
  int getConf(ravel::ClientConf& conf, const ravel::CallContext& context,
              ravel::CallContext* response) override;
  int checkChangeAdv(const ravel::CheckReq& req, ravel::CheckInfo& info,
                     const ravel::CallContext& context, ravel::CallContext* response) override;
  int totalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                          ravel::downloadInfo& page, const ravel::CallContext& context,
                          ravel::CallContext* response) override;
  int totalDownloadCode(std::vector<ravel::CodeInfo>& codes, const ravel::CallContext& context,
                        ravel::CallContext* response) override;
  int reportCounts(const std::vector<ravel::ReportCount>& counts, std::uint64_t dropped,
                   const ravel::CallContext& context, ravel::CallContext* response) override;
  int reportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                  const ravel::CallContext& context, ravel::CallContext* response) override;

 private:
  const GrpcTarget _target;
};

/// The object of the first download over gRPC.
class GrpcFTolvarProxy final : public ravel::FTolvarProxy {
 public:
  explicit GrpcFTolvarProxy(GrpcTarget target) : _target(std::move(target)) {}

  ravel::FTolvarPrx selectServer(std::int64_t key) override;
  void cancelCalls() override;
  int FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                               ravel::downloadInfo& page, const ravel::CallContext& context,
                               ravel::CallContext* response) override;

 private:
  const GrpcTarget _target;
};

}  // namespace tolvar
