#include "transport/grpc/grpc_proxies.h"

#include <random>

#include "platform/exception.h"
#include "transport/grpc/page_call.h"
#include "transport/grpc/page_codec.h"
#include "transport/grpc/record_codec.h"

namespace tolvar {
namespace {

using ravel::CallContext;

/// Encodes a request; what cannot be told on the wire is the caller's failed call.
template <class Encode>
void encodeFor(const char* operation, Encode encode) {
  try {
    encode();
  } catch (const wire::WireError& error) {
    throw qel::ZU_Exception(std::string(operation) +
                            ": the request cannot be sent: " + error.what());
  }
}

v1::PageRequest pageRequest(const wire::PageQuery& query) {
  v1::PageRequest request;
  request.set_high(query.high);
  request.set_low(query.low);
  request.set_size(query.size);
  return request;
}

/// One attempt to fetch the answer to `query` from `server`.
grpc::Status fetchPage(Endpoint& server, const char* method, grpc::ClientContext& call,
                       const wire::PageQuery& query, ravel::downloadInfo& page) {
  grpc::ByteBuffer answer;
  const grpc::Status status =
      callForPage(server.channel(), method, call, pageRequest(query), answer);
  if (status.ok()) wire::decodePage(wire::PageBytes(answer), query, page);
  return status;
}

}  // namespace

GrpcCore::GrpcCore(GrpcOptions chosen)
    : options(std::move(chosen)), spreadKey(std::random_device()()) {}

GrpcTarget GrpcTarget::select(std::int64_t key) const {
  return {core, servers, family, servers->select(key)};
}

void GrpcTarget::call(const CallPlan& plan, const CallContext& context, CallContext* response,
                      const CallRunner::Attempt& attempt) const {
  CallRunner runner(core->calls, family);
  const EndpointSet::Endpoints order =
      bound ? EndpointSet::Endpoints{bound} : servers->ordered(core->spreadKey);
  runner.run(plan, order, context, response, attempt);
}

ravel::TolvarPrx GrpcTolvarProxy::selectServer(std::int64_t key) {
  return std::make_shared<GrpcTolvarProxy>(_target.select(key));
}

void GrpcTolvarProxy::cancelCalls() { _target.core->calls.cancel(_target.family); }

int GrpcTolvarProxy::getConf(ravel::ClientConf& conf, const CallContext& context,
                             CallContext* response) {
  _target.call({"getConf", _target.core->options.checkDeadline, true}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 v1::ClientConf answer;
                 const grpc::Status status = server.main().GetConf(&call, {}, &answer);
                 if (status.ok()) wire::decodeConf(answer, conf);
                 return status;
               });
  return 0;
}

int GrpcTolvarProxy::checkChangeAdv(const ravel::CheckReq& req, ravel::CheckInfo& info,
                                    const CallContext& context, CallContext* response) {
  v1::CheckRequest request;
  encodeFor("checkChangeAdv", [&] { wire::encodeCheckReq(req, request); });
  _target.call({"checkChangeAdv", _target.core->options.checkDeadline, true}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 v1::CheckAnswer answer;
                 const grpc::Status status = server.main().CheckChange(&call, request, &answer);
                 if (status.ok()) wire::decodeCheckInfo(answer, info);
                 return status;
               });
  return 0;
}

int GrpcTolvarProxy::totalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                                         ravel::downloadInfo& page, const CallContext& context,
                                         CallContext* response) {
  _target.call({"totalDownloadIPInfo", _target.core->options.pageDeadline, true}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 return fetchPage(server, kDownloadPageMethod, call, {high, low, size}, page);
               });
  return 0;
}

int GrpcTolvarProxy::totalDownloadCode(std::vector<ravel::CodeInfo>& codes,
                                       const CallContext& context, CallContext* response) {
  _target.call({"totalDownloadCode", _target.core->options.pageDeadline, true}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 v1::Codes answer;
                 const grpc::Status status = server.main().DownloadCodes(&call, {}, &answer);
                 if (status.ok()) wire::decodeCodes(answer, codes);
                 return status;
               });
  return 0;
}

int GrpcTolvarProxy::reportCounts(const std::vector<ravel::ReportCount>& counts,
                                  std::uint64_t dropped, const CallContext& context,
                                  CallContext* response) {
  v1::ReportCountsRequest request;
  encodeFor("reportCounts", [&] { wire::encodeReportCounts(counts, dropped, request); });
  _target.call({"reportCounts", _target.core->options.checkDeadline, false}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 v1::ReportAnswer answer;
                 return server.main().ReportCounts(&call, request, &answer);
               });
  return 0;
}

int GrpcTolvarProxy::reportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                                 const CallContext& context, CallContext* response) {
  v1::ReportLinesRequest request;
  encodeFor("reportLines", [&] { wire::encodeReportLines(lines, dropped, request); });
  _target.call({"reportLines", _target.core->options.checkDeadline, false}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 v1::ReportAnswer answer;
                 return server.main().ReportLines(&call, request, &answer);
               });
  return 0;
}

ravel::FTolvarPrx GrpcFTolvarProxy::selectServer(std::int64_t key) {
  return std::make_shared<GrpcFTolvarProxy>(_target.select(key));
}

void GrpcFTolvarProxy::cancelCalls() { _target.core->calls.cancel(_target.family); }

int GrpcFTolvarProxy::FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low,
                                               std::uint32_t size, ravel::downloadInfo& page,
                                               const CallContext& context, CallContext* response) {
  _target.call({"FirstTotalDownloadIPInfo", _target.core->options.pageDeadline, true}, context,
               response, [&](Endpoint& server, grpc::ClientContext& call) {
                 return fetchPage(server, kFirstDownloadPageMethod, call, {high, low, size}, page);
               });
  return 0;
}

}  // namespace tolvar
