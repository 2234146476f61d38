#include "tests/transport_grpc/scripted_server.h"

#include <grpc/grpc.h>
#include <grpcpp/server_builder.h>

#include <chrono>
#include <stdexcept>

#include "tests/transport_grpc/test_ports.h"

namespace tolvar_test {

using grpc::ServerContext;
using grpc::Status;
namespace v1 = tolvar::v1;

void Barrier::pass() {
  std::unique_lock lock(_mutex);
  ++_arrived;
  _changed.notify_all();
  _changed.wait(lock, [this] { return _open; });
}

void Barrier::awaitArrivals(int count) {
  std::unique_lock lock(_mutex);
  _changed.wait(lock, [&] { return _arrived >= count; });
}

void Barrier::open() {
  const std::lock_guard lock(_mutex);
  _open = true;
  _changed.notify_all();
}

class ScriptedServer::Main final : public v1::TolvarObj::Service {
 public:
  explicit Main(const Script& script) : _script(script) {}

  Status GetConf(ServerContext* context, const v1::GetConfRequest*, v1::ClientConf* out) override {
    return _script.getConf ? _script.getConf(*context, *out) : Status::OK;
  }
  Status CheckChange(ServerContext*, const v1::CheckRequest* in, v1::CheckAnswer* out) override {
    return _script.check ? _script.check(*in, *out) : Status::OK;
  }
  Status DownloadPage(ServerContext*, const v1::PageRequest* in, v1::Page* out) override {
    return _script.page ? _script.page(*in, *out) : Status::OK;
  }
  Status DownloadCodes(ServerContext*, const v1::DownloadCodesRequest*, v1::Codes* out) override {
    return _script.codes ? _script.codes(*out) : Status::OK;
  }
  Status ReportCounts(ServerContext*, const v1::ReportCountsRequest* in,
                      v1::ReportAnswer*) override {
    return _script.reportCounts ? _script.reportCounts(*in) : Status::OK;
  }

 private:
  const Script& _script;
};

class ScriptedServer::Fast final : public v1::FTolvarObj::Service {
 public:
  explicit Fast(const Script& script) : _script(script) {}

  Status FirstDownloadPage(ServerContext*, const v1::PageRequest* in, v1::Page* out) override {
    return _script.page ? _script.page(*in, *out) : Status::OK;
  }

 private:
  const Script& _script;
};

ScriptedServer::ScriptedServer(Script script, int port)
    : _script(std::move(script)),
      _main(std::make_unique<Main>(_script)),
      _fast(std::make_unique<Fast>(_script)) {
  grpc::ServerBuilder builder;
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  builder.AddListeningPort(loopback(port), grpc::InsecureServerCredentials(), &_port);
  builder.RegisterService(_main.get());
  builder.RegisterService(_fast.get());
  _server = builder.BuildAndStart();
  if (!_server || _port == 0) throw std::runtime_error("cannot start the scripted server");
}

ScriptedServer::~ScriptedServer() { _server->Shutdown(std::chrono::system_clock::now()); }

std::string ScriptedServer::address() const { return loopback(_port); }

}  // namespace tolvar_test
