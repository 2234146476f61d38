#pragma once

#include <grpcpp/server.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "tolvar.grpc.pb.h"

namespace tolvar_test {

/// Blocks server handlers until the test lets them go.
class Barrier {
 public:
  /// Called by a handler: announces itself and waits for `open`.
  void pass();
  /// Blocks until `count` handlers have arrived.
  void awaitArrivals(int count);
  void open();

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  int _arrived = 0;
  bool _open = false;
};

/// A server on 127.0.0.1 whose answers the test writes. Empty functions answer defaults.
class ScriptedServer {
 public:
  struct Script {
    std::function<grpc::Status(grpc::ServerContext&, tolvar::v1::ClientConf&)> getConf;
    std::function<grpc::Status(const tolvar::v1::CheckRequest&, tolvar::v1::CheckAnswer&)> check;
    std::function<grpc::Status(const tolvar::v1::PageRequest&, tolvar::v1::Page&)> page;
    std::function<grpc::Status(tolvar::v1::Codes&)> codes;
    std::function<grpc::Status(const tolvar::v1::ReportCountsRequest&)> reportCounts;
  };

  /// `port` 0: any free one.
  explicit ScriptedServer(Script script, int port = 0);
  ~ScriptedServer();

  int port() const noexcept { return _port; }
  std::string address() const;

 private:
  class Main;
  class Fast;

  const Script _script;
  const std::unique_ptr<Main> _main;
  const std::unique_ptr<Fast> _fast;
  int _port = 0;
  std::unique_ptr<grpc::Server> _server;
};

}  // namespace tolvar_test
