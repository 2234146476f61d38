#include "tests/transport_grpc/raw_server.h"

#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/server_builder.h>

#include <chrono>
#include <stdexcept>

#include "tests/transport_grpc/test_ports.h"

namespace tolvar_test {
namespace {

/// Reads the request and answers.
class Reactor final : public grpc::ServerGenericBidiReactor {
 public:
  explicit Reactor(const grpc::ByteBuffer& answer) : _answer(answer) { StartRead(&_request); }

  void OnReadDone(bool) override { StartWriteAndFinish(&_answer, {}, grpc::Status::OK); }
  void OnDone() override { delete this; }

 private:
  grpc::ByteBuffer _request;
  const grpc::ByteBuffer _answer;
};

}  // namespace

class RawServer::Service final : public grpc::CallbackGenericService {
 public:
  Service(const std::string& answer, grpc_compression_algorithm compression)
      : _slice(answer), _answer(&_slice, 1), _compression(compression) {}

  grpc::ServerGenericBidiReactor* CreateReactor(
      grpc::GenericCallbackServerContext* context) override {
    context->set_compression_algorithm(_compression);
    return new Reactor(_answer);
  }

 private:
  const grpc::Slice _slice;
  const grpc::ByteBuffer _answer;
  const grpc_compression_algorithm _compression;
};

RawServer::RawServer(const std::string& answer, grpc_compression_algorithm compression)
    : _service(std::make_unique<Service>(answer, compression)) {
  grpc::ServerBuilder builder;
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  builder.AddListeningPort(loopback(0), grpc::InsecureServerCredentials(), &_port);
  builder.RegisterCallbackGenericService(_service.get());
  _server = builder.BuildAndStart();
  if (!_server || _port == 0) throw std::runtime_error("cannot start the raw server");
}

RawServer::~RawServer() { _server->Shutdown(std::chrono::system_clock::now()); }

std::string RawServer::address() const { return loopback(_port); }

}  // namespace tolvar_test
