#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_unary_call.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/status.h>

#include <chrono>
#include <memory>

#include "transport/grpc/page_codec.h"

namespace tolvar::v1 {
class PageRequest;
}

namespace tolvar {

/// The methods that answer pages.
inline constexpr const char* kDownloadPageMethod = "/tolvar.v1.TolvarObj/DownloadPage";
inline constexpr const char* kFirstDownloadPageMethod = "/tolvar.v1.FTolvarObj/FirstDownloadPage";

/// The message that asks for a page.
v1::PageRequest pageRequest(const wire::PageQuery& query);

/// One call for a page, whose answer stays bytes: decoding them directly is several times as fast
/// as by way of a message object. One thread at a time.
class PageCall {
 public:
  /// Sends the request. `context` outlives the call.
  PageCall(const std::shared_ptr<grpc::Channel>& channel, const char* method,
           grpc::ClientContext& context, const v1::PageRequest& request);
  /// Cancels what has not come to its end.
  ~PageCall();
  PageCall(const PageCall&) = delete;
  PageCall& operator=(const PageCall&) = delete;

  /// Reads the answer. False when it has not come to its end at `until`.
  bool await(std::chrono::system_clock::time_point until);

  /// After `await` has answered true.
  const grpc::Status& status() const noexcept { return _status; }
  const grpc::ByteBuffer& answer() const noexcept { return _answer; }

 private:
  grpc::ClientContext& _context;
  grpc::CompletionQueue _queue;
  std::unique_ptr<grpc::ClientAsyncResponseReader<grpc::ByteBuffer>> _call;
  grpc::ByteBuffer _answer;
  grpc::Status _status;
  bool _ended = false;
};

/// Asks for a page and blocks until the answer's bytes are there. Any thread.
grpc::Status callForPage(const std::shared_ptr<grpc::Channel>& channel, const char* method,
                         grpc::ClientContext& context, const v1::PageRequest& request,
                         grpc::ByteBuffer& answer);

}  // namespace tolvar
