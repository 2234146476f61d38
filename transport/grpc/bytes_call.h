#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_unary_call.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/status.h>

#include <chrono>
#include <memory>

namespace google::protobuf {
class MessageLite;
}

namespace tolvar {

/// One call whose answer stays bytes: they can be checked before anything is built from them, and
/// decoding a page directly is several times as fast as by way of a message object. One thread at a
/// time.
class BytesCall {
 public:
  /// Sends the request. `method` is "/package.Service/Method"; `context` outlives the call.
  BytesCall(const std::shared_ptr<grpc::Channel>& channel, const char* method,
            grpc::ClientContext& context, const google::protobuf::MessageLite& request);
  /// Cancels what has not come to its end.
  ~BytesCall();
  BytesCall(const BytesCall&) = delete;
  BytesCall& operator=(const BytesCall&) = delete;

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

/// Makes a call and blocks until the answer's bytes are there. Any thread.
grpc::Status callForBytes(const std::shared_ptr<grpc::Channel>& channel, const char* method,
                          grpc::ClientContext& context,
                          const google::protobuf::MessageLite& request, grpc::ByteBuffer& answer);

}  // namespace tolvar
