#include "transport/grpc/page_call.h"

#include <grpcpp/completion_queue.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/impl/codegen/proto_utils.h>

#include "tolvar.pb.h"

namespace tolvar {

v1::PageRequest pageRequest(const wire::PageQuery& query) {
  v1::PageRequest request;
  request.set_high(query.high);
  request.set_low(query.low);
  request.set_size(query.size);
  return request;
}

PageCall::PageCall(const std::shared_ptr<grpc::Channel>& channel, const char* method,
                   grpc::ClientContext& context, const v1::PageRequest& request)
    : _context(context) {
  grpc::TemplatedGenericStub<v1::PageRequest, grpc::ByteBuffer> stub(channel);
  _call = stub.PrepareUnaryCall(&context, method, request, &_queue);
  _call->StartCall();
  _call->Finish(&_answer, &_status, nullptr);
}

PageCall::~PageCall() {
  if (!_ended) _context.TryCancel();
  void* tag = nullptr;
  bool done = false;
  _queue.Shutdown();
  while (_queue.Next(&tag, &done)) {
  }
}

bool PageCall::await(std::chrono::system_clock::time_point until) {
  void* tag = nullptr;
  bool done = false;
  // The caller's own thread does the reading: this works on the connection until the answer is
  // there.
  _ended = _ended || _queue.AsyncNext(&tag, &done, until) == grpc::CompletionQueue::GOT_EVENT;
  return _ended;
}

grpc::Status callForPage(const std::shared_ptr<grpc::Channel>& channel, const char* method,
                         grpc::ClientContext& context, const v1::PageRequest& request,
                         grpc::ByteBuffer& answer) {
  PageCall call(channel, method, context, request);
  call.await(std::chrono::system_clock::time_point::max());
  answer = call.answer();
  return call.status();
}

}  // namespace tolvar
