#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/support/server_callback.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "bench/net_cases.h"
#include "bench/support/host.h"
#include "bench/support/synthetic_table.h"
#include "tolvar.grpc.pb.h"
#include "tools/tolvard/server/grpc_server.h"

namespace tolvar_bench {
namespace {

using grpc::ByteBuffer;
namespace v1 = tolvar::v1;

/// Answers a short request, a decimal number, with as many bytes, which are made once; any other
/// with itself.
class BareHandlers final
    : public v1::FTolvarObj::WithRawCallbackMethod_FirstDownloadPage<v1::FTolvarObj::Service> {
 public:
  grpc::ServerUnaryReactor* FirstDownloadPage(grpc::CallbackServerContext* context,
                                              const ByteBuffer* request,
                                              ByteBuffer* response) override {
    constexpr std::size_t kNumberLength = 20;
    grpc::Slice text;
    grpc::ServerUnaryReactor* const reactor = context->DefaultReactor();
    if (request->Length() > kNumberLength) {
      *response = *request;
      reactor->Finish(grpc::Status::OK);
      return reactor;
    }
    if (!request->DumpToSingleSlice(&text).ok()) {
      reactor->Finish(grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "no number"));
      return reactor;
    }
    *response = bytes(std::stoul(std::string(text.begin(), text.end())));
    reactor->Finish(grpc::Status::OK);
    return reactor;
  }

 private:
  ByteBuffer bytes(std::size_t count) {
    const std::lock_guard lock(_mutex);
    ByteBuffer& answer = _answers[count];
    if (!answer.Valid()) {
      const grpc::Slice slice(std::string(count, 'x'));
      answer = ByteBuffer(&slice, 1);
    }
    return answer;
  }

  std::mutex _mutex;
  std::map<std::size_t, ByteBuffer> _answers;  ///< guarded by _mutex
};

}  // namespace

void runNetServer(std::size_t ranges) {
  Service service;
  SyntheticOptions table;
  table.ranges = ranges;
  service.publish(makeSyntheticTable(table));
  tolvar::GrpcServerOptions options;
  options.listen = {"127.0.0.1:0"};
  options.maxDownloads = 100000;
  tolvar::GrpcServer server(service.lookups(), options);

  BareHandlers handlers;
  grpc::ServerBuilder builder;
  int barePort = 0;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &barePort);
  builder.RegisterService(&handlers);
  const std::unique_ptr<grpc::Server> bare = builder.BuildAndStart();
  if (!bare || barePort == 0) throw std::runtime_error("the bare server cannot listen");

  std::printf("127.0.0.1:%d\n127.0.0.1:%d\n", server.ports()[0], barePort);
  std::fflush(stdout);
  char c;
  while (read(STDIN_FILENO, &c, 1) > 0) {
  }
  server.shutdown(std::chrono::milliseconds(0));
  bare->Shutdown();
}

}  // namespace tolvar_bench
