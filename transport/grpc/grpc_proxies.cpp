#include "transport/grpc/grpc_proxies.h"

#include <optional>
#include <random>

#include "platform/exception.h"
#include "tolvar.pb.h"
#include "transport/grpc/bytes_call.h"
#include "transport/grpc/message_parser.h"
#include "transport/grpc/page_bytes.h"
#include "transport/grpc/page_codec.h"
#include "transport/grpc/page_request.h"
#include "transport/grpc/plain_page.h"
#include "transport/grpc/record_codec.h"

namespace tolvar {
namespace {

using ravel::CallContext;

constexpr const char* kGetConfMethod = "/tolvar.v1.TolvarObj/GetConf";
constexpr const char* kCheckChangeMethod = "/tolvar.v1.TolvarObj/CheckChange";
constexpr const char* kDownloadCodesMethod = "/tolvar.v1.TolvarObj/DownloadCodes";
constexpr const char* kReportCountsMethod = "/tolvar.v1.TolvarObj/ReportCounts";
constexpr const char* kReportLinesMethod = "/tolvar.v1.TolvarObj/ReportLines";

/// Within an attempt: what cannot be told on the wire is no fault of the answer's.
template <class Request, class Encode>
Request encoded(Encode encode) {
  try {
    Request request;
    encode(request);
    return request;
  } catch (const wire::WireError& error) {
    throw UnsendableRequest(error.what());
  }
}

/// Calls `method` of the main object on `server`. An answer that could fill the memory is refused
/// before it is parsed.
template <class Answer>
grpc::Status callMain(const Endpoint& server, const char* method, grpc::ClientContext& call,
                      const google::protobuf::MessageLite& request, Answer& answer) {
  grpc::ByteBuffer received;
  const grpc::Status status = callForBytes(server.channel(), method, call, request, received);
  if (status.ok()) wire::parseBounded(wire::PageBytes(received).bytes(), answer);
  return status;
}

/// The answer of `server` to `query` as bytes: the page that was asked for ahead, if it is this
/// one.
grpc::Status fetchBytes(const GrpcTarget& target, Endpoint& server, grpc::ClientContext& call,
                        const wire::PageQuery& query, std::optional<wire::PageBytes>& bytes) {
  bytes = target.ahead->take(server, query, call.deadline());
  if (bytes) return grpc::Status::OK;
  grpc::ByteBuffer answer;
  const grpc::Status status =
      callForBytes(server.channel(), target.ahead->method(), call, pageRequest(query), answer);
  if (status.ok()) bytes.emplace(answer);
  return status;
}

/// One attempt to fetch the answer to `query` from `server`. Asks for the page behind it before it
/// decodes, so that both go on at once.
grpc::Status fetchPage(const GrpcTarget& target, Endpoint& server, grpc::ClientContext& call,
                       const wire::PageQuery& query, ravel::downloadInfo& page) {
  std::optional<wire::PageBytes> bytes;
  const grpc::Status status = fetchBytes(target, server, call, query, bytes);
  if (!status.ok()) return status;
  if (const std::optional<wire::PageQuery> next = wire::queryBehind(*bytes, query))
    target.ahead->ask(server, *next, target.core->options.pageDeadline);
  try {
    wire::decodePage(*bytes, query, page);
  } catch (...) {
    target.ahead->drop();
    throw;
  }
  return status;
}

/// The same for a call that carries a context or wants one back: such calls go to the service one
/// by one, as they are made.
grpc::Status fetchPageAlone(const GrpcTarget& target, Endpoint& server, grpc::ClientContext& call,
                            const wire::PageQuery& query, ravel::downloadInfo& page) {
  target.ahead->drop();
  std::optional<wire::PageBytes> bytes;
  const grpc::Status status = fetchBytes(target, server, call, query, bytes);
  if (status.ok()) wire::decodePage(*bytes, query, page);
  return status;
}

/// Fetches the answer to `query`.
void callForPage(const GrpcTarget& target, const char* operation, const wire::PageQuery& query,
                 ravel::downloadInfo& page, const CallContext& context, CallContext* response) {
  const bool alone = !context.empty() || response != nullptr;
  target.call({operation, target.core->options.pageDeadline, true}, context, response,
              [&](Endpoint& server, grpc::ClientContext& call) {
                return alone ? fetchPageAlone(target, server, call, query, page)
                             : fetchPage(target, server, call, query, page);
              });
}

}  // namespace

GrpcCore::GrpcCore(GrpcOptions chosen)
    : options(std::move(chosen)), spreadKey(std::random_device()()) {}

GrpcTarget::GrpcTarget(std::shared_ptr<GrpcCore> sharedCore,
                       std::shared_ptr<const EndpointSet> allServers, const char* pageMethod)
    : core(std::move(sharedCore)),
      servers(std::move(allServers)),
      family(core->calls.newFamily()),
      ahead(ownedByThisProcess(std::make_unique<PageAhead>(core->calls, family, pageMethod))) {}

GrpcTarget GrpcTarget::select(std::int64_t key) const {
  GrpcTarget chosen(*this);
  if (!core->process.isForkedCopy()) chosen.bound = servers->select(key);
  return chosen;
}

void GrpcTarget::call(const CallPlan& plan, const CallContext& context, CallContext* response,
                      const CallRunner::Attempt& attempt) const {
  // Before any lock, which a thread of the parent may have held.
  if (core->process.isForkedCopy())
    throw qel::ZU_Exception(plan.operation + " at " + servers->first().address() +
                            ": FAILED_PRECONDITION after 0 ms: " + kLostInFork);
  CallRunner runner(core->calls, family);
  const EndpointSet::Endpoints order =
      bound ? EndpointSet::Endpoints{bound} : servers->ordered(core->spreadKey);
  runner.run(plan, order, context, response, attempt);
}

void GrpcTarget::cancel() const {
  if (core->process.isForkedCopy()) return;
  core->calls.cancel(family);
  ahead->drop();
}

ravel::TolvarPrx GrpcTolvarProxy::selectServer(std::int64_t key) {
  return std::make_shared<GrpcTolvarProxy>(_target.select(key));
}

void GrpcTolvarProxy::cancelCalls() { _target.cancel(); }

int GrpcTolvarProxy::getConf(ravel::ClientConf& conf, const CallContext& context,
                             CallContext* response) {
  _target.call({"getConf", _target.core->options.checkDeadline, true}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 v1::ClientConf answer;
                 const grpc::Status status =
                     callMain(server, kGetConfMethod, call, v1::GetConfRequest(), answer);
                 if (status.ok()) wire::decodeConf(answer, conf);
                 return status;
               });
  return 0;
}

int GrpcTolvarProxy::checkChangeAdv(const ravel::CheckReq& req, ravel::CheckInfo& info,
                                    const CallContext& context, CallContext* response) {
  _target.call({"checkChangeAdv", _target.core->options.checkDeadline, true}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 const auto request = encoded<v1::CheckRequest>(
                     [&](v1::CheckRequest& message) { wire::encodeCheckReq(req, message); });
                 v1::CheckAnswer answer;
                 const grpc::Status status =
                     callMain(server, kCheckChangeMethod, call, request, answer);
                 if (status.ok()) wire::decodeCheckInfo(answer, info);
                 return status;
               });
  return 0;
}

int GrpcTolvarProxy::totalDownloadIPInfo(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                                         ravel::downloadInfo& page, const CallContext& context,
                                         CallContext* response) {
  callForPage(_target, "totalDownloadIPInfo", {high, low, size}, page, context, response);
  return 0;
}

int GrpcTolvarProxy::totalDownloadCode(std::vector<ravel::CodeInfo>& codes,
                                       const CallContext& context, CallContext* response) {
  _target.call({"totalDownloadCode", _target.core->options.pageDeadline, true}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 v1::Codes answer;
                 const grpc::Status status = callMain(server, kDownloadCodesMethod, call,
                                                      v1::DownloadCodesRequest(), answer);
                 if (status.ok()) wire::decodeCodes(answer, codes);
                 return status;
               });
  return 0;
}

int GrpcTolvarProxy::reportCounts(const std::vector<ravel::ReportCount>& counts,
                                  std::uint64_t dropped, const CallContext& context,
                                  CallContext* response) {
  _target.call({"reportCounts", _target.core->options.checkDeadline, false}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 const auto request =
                     encoded<v1::ReportCountsRequest>([&](v1::ReportCountsRequest& message) {
                       wire::encodeReportCounts(counts, dropped, message);
                     });
                 v1::ReportAnswer answer;
                 return callMain(server, kReportCountsMethod, call, request, answer);
               });
  return 0;
}

int GrpcTolvarProxy::reportLines(const std::vector<std::string>& lines, std::uint64_t dropped,
                                 const CallContext& context, CallContext* response) {
  _target.call({"reportLines", _target.core->options.checkDeadline, false}, context, response,
               [&](Endpoint& server, grpc::ClientContext& call) {
                 const auto request =
                     encoded<v1::ReportLinesRequest>([&](v1::ReportLinesRequest& message) {
                       wire::encodeReportLines(lines, dropped, message);
                     });
                 v1::ReportAnswer answer;
                 return callMain(server, kReportLinesMethod, call, request, answer);
               });
  return 0;
}

ravel::FTolvarPrx GrpcFTolvarProxy::selectServer(std::int64_t key) {
  return std::make_shared<GrpcFTolvarProxy>(_target.select(key));
}

void GrpcFTolvarProxy::cancelCalls() { _target.cancel(); }

int GrpcFTolvarProxy::FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low,
                                               std::uint32_t size, ravel::downloadInfo& page,
                                               const CallContext& context, CallContext* response) {
  callForPage(_target, "FirstTotalDownloadIPInfo", {high, low, size}, page, context, response);
  return 0;
}

}  // namespace tolvar
