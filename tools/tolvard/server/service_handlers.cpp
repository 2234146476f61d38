#include "tools/tolvard/server/service_handlers.h"

#include <grpcpp/support/server_callback.h>

#include <chrono>
#include <stdexcept>

#include "tolvar.grpc.pb.h"
#include "transport/grpc/call_runner.h"
#include "transport/grpc/record_codec.h"

namespace tolvar {
namespace {

using grpc::ByteBuffer;
using grpc::CallbackServerContext;
using grpc::ServerUnaryReactor;
using grpc::Status;
using grpc::StatusCode;

/// Ends with the call: gives back the memory that was counted for its answer.
class CountedReactor final : public ServerUnaryReactor {
 public:
  CountedReactor(std::atomic<std::size_t>& total, std::size_t bytes)
      : _total(total), _bytes(bytes) {}
  void OnDone() override {
    _total.fetch_sub(_bytes, std::memory_order_relaxed);
    delete this;
  }

 private:
  std::atomic<std::size_t>& _total;
  const std::size_t _bytes;
};

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

template <class Message>
Message parsed(const ByteBuffer& bytes) {
  Message message;
  ByteBuffer copy(bytes);
  if (!grpc::SerializationTraits<Message>::Deserialize(&copy, &message).ok())
    throw std::invalid_argument("the request is not a " + std::string(message.GetTypeName()));
  return message;
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

/// A call whose answer is small.
template <class Body>
ServerUnaryReactor* answer(ServingContext& serving, const char* operation,
                           CallbackServerContext* context, Body body) {
  const CallTimer timer(serving, operation, *context);
  const Status status = guarded([&] {
    body();
    return Status::OK;
  });
  timer.report(status, 0);
  ServerUnaryReactor* reactor = context->DefaultReactor();
  reactor->Finish(status);
  return reactor;
}

std::shared_ptr<const EncodedTable> currentTable(ServingContext& serving) {
  const auto version = serving.service->current();
  if (!version) throw service::NoTableError();
  return serving.tables.of(version);
}

/// Counts `bytes` towards the pages of single calls; false when that would pass the limit.
bool reservePrivateBytes(ServingContext& serving, std::size_t bytes) {
  const std::size_t before = serving.privateBytes.fetch_add(bytes, std::memory_order_relaxed);
  if (before + bytes <= serving.options.privatePageBytes) return true;
  serving.privateBytes.fetch_sub(bytes, std::memory_order_relaxed);
  return false;
}

Status sendPage(ServingContext& serving, const std::string& peer, const ByteBuffer& request,
                ByteBuffer& response, std::size_t& counted) {
  return guarded([&] {
    const auto query = parsed<v1::PageRequest>(request);
    EncodedTable::PageAnswer page =
        currentTable(serving)->page({query.high(), query.low(), query.size()});
    if (!page.shared) {
      const std::size_t bytes = page.bytes.Length();
      if (!reservePrivateBytes(serving, bytes))
        return Status(StatusCode::RESOURCE_EXHAUSTED, "too many pages of other sizes than " +
                                                          std::to_string(service::kMaxPageSize) +
                                                          " are being sent");
      counted = bytes;
    }
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
  ServerUnaryReactor* reactor =
      counted == 0 ? context->DefaultReactor() : new CountedReactor(serving.privateBytes, counted);
  reactor->Finish(status);
  return reactor;
}

using Main = v1::TolvarObj;
using MainBase = Main::WithCallbackMethod_GetConf<
    Main::WithCallbackMethod_CheckChange<Main::WithRawCallbackMethod_DownloadPage<
        Main::WithRawCallbackMethod_DownloadCodes<Main::WithCallbackMethod_ReportCounts<
            Main::WithCallbackMethod_ReportLines<Main::Service>>>>>>;

class MainHandlers final : public MainBase {
 public:
  explicit MainHandlers(ServingContext& serving) : _serving(serving) {}

  ServerUnaryReactor* GetConf(CallbackServerContext* context, const v1::GetConfRequest*,
                              v1::ClientConf* response) override {
    return answer(_serving, "GetConf", context,
                  [&] { wire::encodeConf(_serving.service->getConf(), *response); });
  }

  ServerUnaryReactor* CheckChange(CallbackServerContext* context, const v1::CheckRequest* request,
                                  v1::CheckAnswer* response) override {
    return answer(_serving, "CheckChange", context, [&] {
      const auto req = decoded([&] {
        ravel::CheckReq record;
        wire::decodeCheckReq(*request, record);
        return record;
      });
      ravel::CheckInfo info = _serving.service->checkChangeAdv(req);
      if (info.isNetFlow != 1 && info.isReset != 0 && !_serving.gate.admit(context->peer())) {
        info = ravel::CheckInfo();
        info.isNetFlow = 1;
        _serving.refusedChecks.fetch_add(1, std::memory_order_relaxed);
      }
      wire::encodeCheckInfo(info, *response);
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
    ServerUnaryReactor* reactor = context->DefaultReactor();
    reactor->Finish(status);
    return reactor;
  }

  ServerUnaryReactor* ReportCounts(CallbackServerContext* context,
                                   const v1::ReportCountsRequest* request,
                                   v1::ReportAnswer*) override {
    return answer(_serving, "ReportCounts", context, [&] {
      const auto counts = decoded([&] { return wire::decodeReportCounts(*request); });
      _serving.service->reportCounts(counts, request->dropped());
    });
  }

  ServerUnaryReactor* ReportLines(CallbackServerContext* context,
                                  const v1::ReportLinesRequest* request,
                                  v1::ReportAnswer*) override {
    return answer(_serving, "ReportLines", context, [&] {
      const auto lines = decoded([&] { return wire::decodeReportLines(*request); });
      _serving.service->reportLines(lines, request->dropped());
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
