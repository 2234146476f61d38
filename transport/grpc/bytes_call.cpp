#include "transport/grpc/bytes_call.h"

#include <grpcpp/completion_queue.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/impl/codegen/proto_utils.h>

namespace tolvar {

BytesCall::BytesCall(const std::shared_ptr<grpc::Channel>& channel, const char* method,
                     grpc::ClientContext& context, const google::protobuf::MessageLite& request)
    : _context(context) {
  grpc::TemplatedGenericStub<google::protobuf::MessageLite, grpc::ByteBuffer> stub(channel);
  _call = stub.PrepareUnaryCall(&context, method, request, &_queue);
  _call->StartCall();
  _call->Finish(&_answer, &_status, nullptr);
}

BytesCall::~BytesCall() {
  if (!_ended) _context.TryCancel();
  void* tag = nullptr;
  bool done = false;
  _queue.Shutdown();
  while (_queue.Next(&tag, &done)) {
  }
}

bool BytesCall::await(std::chrono::system_clock::time_point until) {
  void* tag = nullptr;
  bool done = false;
  // The caller's own thread does the reading: this works on the connection until the answer is
  // there.
  _ended = _ended || _queue.AsyncNext(&tag, &done, until) == grpc::CompletionQueue::GOT_EVENT;
  return _ended;
}

grpc::Status callForBytes(const std::shared_ptr<grpc::Channel>& channel, const char* method,
                          grpc::ClientContext& context,
                          const google::protobuf::MessageLite& request, grpc::ByteBuffer& answer) {
  BytesCall call(channel, method, context, request);
  call.await(std::chrono::system_clock::time_point::max());
  answer = call.answer();
  return call.status();
}

}  // namespace tolvar
