#include "tools/tolvard/server/service_handlers.h"

#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/server_callback.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "tolvar.grpc.pb.h"
#include "transport/grpc/call_runner.h"
#include "transport/grpc/message_parser.h"
#include "transport/grpc/page_bytes.h"
#include "transport/grpc/record_codec.h"

namespace tolvar {
namespace {

using grpc::ByteBuffer;
using grpc::CallbackServerContext;
using grpc::ServerUnaryReactor;
using grpc::Status;
using grpc::StatusCode;

/// What a record of real tables takes in a page, in bytes.
constexpr std::size_t kUsualRecordBytes = 18;

/// Ends with the call, which it counts as one under way, and gives back the memory that was counted
/// for its answer.
class CountedReactor final : public ServerUnaryReactor {
 public:
  explicit CountedReactor(ServingContext& serving, std::size_t privateBytes = 0)
      : _serving(serving), _privateBytes(privateBytes) {
    _serving.calls.fetch_add(1, std::memory_order_relaxed);
  }

  void OnDone() override {
    _serving.privateBytes.fetch_sub(_privateBytes, std::memory_order_relaxed);
    _serving.calls.fetch_sub(1, std::memory_order_relaxed);
    delete this;
  }

 private:
  ServingContext& _serving;
  const std::size_t _privateBytes;
};

/// Sends the answer, or the status instead of it.
ServerUnaryReactor* finish(ServingContext& serving, const Status& status,
                           std::size_t privateBytes = 0) {
  auto* const reactor = new CountedReactor(serving, privateBytes);
  reactor->Finish(status);
  return reactor;
}

/// Runs a handler's body and turns what it throws into a status.
template <class Body>
Status guarded(Body body) {
  try {
    return body();
  } catch (const service::NoTableError& error) {
    return Status(StatusCode::FAILED_PRECONDITION, error.what());
  } catch (const std::invalid_argument& error) {
    return Status(StatusCode::INVALID_ARGUMENT, error.what());
  } catch (const std::exception& error) {
    return Status(StatusCode::INTERNAL, error.what());
  }
}

/// Decodes a request; what it breaks is the caller's fault.
template <class Decode>
auto decoded(Decode decode) {
  try {
    return decode();
  } catch (const wire::WireError& error) {
    throw std::invalid_argument(error.what());
  }
}

/// The request, unless it holds more than one may. Parsed here and not by gRPC, which would answer
/// bytes that are no message as if the method did not exist.
template <class Message>
Message parsed(const ByteBuffer& bytes) {
  return decoded([&] {
    Message message;
    wire::parseBounded(wire::PageBytes(bytes).bytes(), message);
    return message;
  });
}

/// Times a call and tells the observer, if there is one.
class CallTimer {
 public:
  CallTimer(const ServingContext& serving, const char* operation,
            const CallbackServerContext& context)
      : _serving(serving), _operation(operation), _context(context) {}

  void report(const Status& status, std::size_t answerBytes) const {
    if (!_serving.options.onCall) return;
    const auto taken = std::chrono::steady_clock::now() - _begin;
    _serving.options.onCall(
        {_operation, _context.peer(), statusName(status.error_code()), status.error_message(),
         std::chrono::duration_cast<std::chrono::microseconds>(taken).count(), answerBytes});
  }

 private:
  const ServingContext& _serving;
  const char* const _operation;
  const CallbackServerContext& _context;
  const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
};

template <class Message>
ByteBuffer serialized(const Message& message) {
  ByteBuffer bytes;
  bool owned = false;
  const Status status = grpc::SerializationTraits<Message>::Serialize(message, &bytes, &owned);
  if (!status.ok()) throw std::runtime_error("cannot serialize: " + status.error_message());
  return bytes;
}

/// A call whose messages are small.
template <class Request, class Answer, class Body>
ServerUnaryReactor* answer(ServingContext& serving, const char* operation,
                           CallbackServerContext* context, const ByteBuffer& request,
                           ByteBuffer& response, Body body) {
  const CallTimer timer(serving, operation, *context);
  const Status status = guarded([&] {
    Answer message;
    body(parsed<Request>(request), message);
    response = serialized(message);
    return Status::OK;
  });
  timer.report(status, 0);
  return finish(serving, status);
}

std::shared_ptr<const EncodedTable> currentTable(ServingContext& serving) {
  const auto version = serving.service->current();
  if (!version) throw service::NoTableError();
  return serving.tables.of(version);
}

/// The share of one call in the memory for pages that cannot be shared. Gives it back unless the
/// call keeps it.
class PrivateBytes {
 public:
  explicit PrivateBytes(ServingContext& serving) : _serving(serving) {}
  ~PrivateBytes() { _serving.privateBytes.fetch_sub(_bytes, std::memory_order_relaxed); }
  PrivateBytes(const PrivateBytes&) = delete;
  PrivateBytes& operator=(const PrivateBytes&) = delete;

  /// Makes the share `bytes`; false, and the share stays, when that would pass the limit.
  bool resize(std::size_t bytes) {
    const std::size_t before =
        _serving.privateBytes.fetch_add(bytes - _bytes, std::memory_order_relaxed);
    if (bytes > _bytes && before + (bytes - _bytes) > _serving.options.privatePageBytes) {
      _serving.privateBytes.fetch_sub(bytes - _bytes, std::memory_order_relaxed);
      return false;
    }
    _bytes = bytes;
    return true;
  }

  /// The caller answers for the share from now on.
  std::size_t keep() { return std::exchange(_bytes, 0); }

 private:
  ServingContext& _serving;
  std::size_t _bytes = 0;
};

Status sendPage(ServingContext& serving, const std::string& peer, const ByteBuffer& request,
                ByteBuffer& response, std::size_t& counted) {
  return guarded([&] {
    const auto asked = parsed<v1::PageRequest>(request);
    const wire::PageQuery query{asked.high(), asked.low(), asked.size()};
    const auto table = currentTable(serving);
    PrivateBytes mine(serving);
    const Status full(StatusCode::RESOURCE_EXHAUSTED, "too many pages of other sizes than " +
                                                          std::to_string(service::kMaxPageSize) +
                                                          " are being sent");
    // Before the work of encoding, so that calls which cannot be served cost next to nothing.
    if (!mine.resize(table->privateRecords(query) * kUsualRecordBytes)) return full;
    const EncodedTable::PageAnswer page = table->page(query);
    if (!page.shared && !mine.resize(page.bytes.Length())) return full;
    counted = mine.keep();
    response = page.bytes;
    if (page.last)
      serving.gate.finished(peer);
    else
      serving.gate.pageSent(peer);
    return Status::OK;
  });
}

ServerUnaryReactor* answerPage(ServingContext& serving, const char* operation,
                               CallbackServerContext* context, const ByteBuffer* request,
                               ByteBuffer* response) {
  const CallTimer timer(serving, operation, *context);
  std::size_t counted = 0;
  const Status status = sendPage(serving, context->peer(), *request, *response, counted);
  timer.report(status, status.ok() ? response->Length() : 0);
  return finish(serving, status, counted);
}

using Main = v1::TolvarObj;
using MainBase = Main::WithRawCallbackMethod_GetConf<
    Main::WithRawCallbackMethod_CheckChange<Main::WithRawCallbackMethod_DownloadPage<
        Main::WithRawCallbackMethod_DownloadCodes<Main::WithRawCallbackMethod_ReportCounts<
            Main::WithRawCallbackMethod_ReportLines<Main::Service>>>>>>;

class MainHandlers final : public MainBase {
 public:
  explicit MainHandlers(ServingContext& serving) : _serving(serving) {}

  ServerUnaryReactor* GetConf(CallbackServerContext* context, const ByteBuffer* request,
                              ByteBuffer* response) override {
    return answer<v1::GetConfRequest, v1::ClientConf>(
        _serving, "GetConf", context, *request, *response,
        [&](const v1::GetConfRequest&, v1::ClientConf& conf) {
          wire::encodeConf(_serving.service->getConf(), conf);
        });
  }

  ServerUnaryReactor* CheckChange(CallbackServerContext* context, const ByteBuffer* request,
                                  ByteBuffer* response) override {
    return answer<v1::CheckRequest, v1::CheckAnswer>(
        _serving, "CheckChange", context, *request, *response,
        [&](const v1::CheckRequest& asked, v1::CheckAnswer& told) {
          const auto req = decoded([&] {
            ravel::CheckReq record;
            wire::decodeCheckReq(asked, record);
            return record;
          });
          ravel::CheckInfo info = _serving.service->checkChangeAdv(req);
          if (info.isNetFlow != 1 && info.isReset != 0 && !_serving.gate.admit(context->peer())) {
            info = ravel::CheckInfo();
            info.isNetFlow = 1;
            _serving.refusedChecks.fetch_add(1, std::memory_order_relaxed);
          }
          wire::encodeCheckInfo(info, told);
        });
  }

  ServerUnaryReactor* DownloadPage(CallbackServerContext* context, const ByteBuffer* request,
                                   ByteBuffer* response) override {
    return answerPage(_serving, "DownloadPage", context, request, response);
  }

  ServerUnaryReactor* DownloadCodes(CallbackServerContext* context, const ByteBuffer* request,
                                    ByteBuffer* response) override {
    const CallTimer timer(_serving, "DownloadCodes", *context);
    const Status status = guarded([&] {
      parsed<v1::DownloadCodesRequest>(*request);
      *response = currentTable(_serving)->codes();
      return Status::OK;
    });
    timer.report(status, status.ok() ? response->Length() : 0);
    return finish(_serving, status);
  }

  ServerUnaryReactor* ReportCounts(CallbackServerContext* context, const ByteBuffer* request,
                                   ByteBuffer* response) override {
    return answer<v1::ReportCountsRequest, v1::ReportAnswer>(
        _serving, "ReportCounts", context, *request, *response,
        [&](const v1::ReportCountsRequest& report, v1::ReportAnswer&) {
          const auto counts = decoded([&] { return wire::decodeReportCounts(report); });
          _serving.service->reportCounts(counts, report.dropped());
        });
  }

  ServerUnaryReactor* ReportLines(CallbackServerContext* context, const ByteBuffer* request,
                                  ByteBuffer* response) override {
    return answer<v1::ReportLinesRequest, v1::ReportAnswer>(
        _serving, "ReportLines", context, *request, *response,
        [&](const v1::ReportLinesRequest& report, v1::ReportAnswer&) {
          const auto lines = decoded([&] { return wire::decodeReportLines(report); });
          _serving.service->reportLines(lines, report.dropped());
        });
  }

 private:
  ServingContext& _serving;
};

class FastHandlers final
    : public v1::FTolvarObj::WithRawCallbackMethod_FirstDownloadPage<v1::FTolvarObj::Service> {
 public:
  explicit FastHandlers(ServingContext& serving) : _serving(serving) {}

  ServerUnaryReactor* FirstDownloadPage(CallbackServerContext* context, const ByteBuffer* request,
                                        ByteBuffer* response) override {
    return answerPage(_serving, "FirstDownloadPage", context, request, response);
  }

 private:
  ServingContext& _serving;
};

}  // namespace

std::unique_ptr<grpc::Service> makeMainHandlers(ServingContext& context) {
  return std::make_unique<MainHandlers>(context);
}

std::unique_ptr<grpc::Service> makeFastHandlers(ServingContext& context) {
  return std::make_unique<FastHandlers>(context);
}

}  // namespace tolvar
