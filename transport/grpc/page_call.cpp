#include "transport/grpc/page_call.h"

#include <grpcpp/completion_queue.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/impl/codegen/proto_utils.h>

#include "tolvar.pb.h"

namespace tolvar {

grpc::Status callForPage(const std::shared_ptr<grpc::Channel>& channel, const char* method,
                         grpc::ClientContext& context, const v1::PageRequest& request,
                         grpc::ByteBuffer& answer) {
  grpc::CompletionQueue queue;
  grpc::TemplatedGenericStub<v1::PageRequest, grpc::ByteBuffer> stub(channel);
  grpc::Status status;
  const auto call = stub.PrepareUnaryCall(&context, method, request, &queue);
  call->StartCall();
  call->Finish(&answer, &status, nullptr);
  void* tag = nullptr;
  bool done = false;
  // The call's own thread does the reading: Next works on the connection until the answer is there.
  queue.Next(&tag, &done);
  queue.Shutdown();
  while (queue.Next(&tag, &done)) {
  }
  return status;
}

}  // namespace tolvar
