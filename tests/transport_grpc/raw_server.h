#pragma once

#include <grpc/impl/codegen/compression_types.h>
#include <grpcpp/server.h>

#include <memory>
#include <string>

namespace tolvar_test {

/// A server on 127.0.0.1 that answers every call with the same bytes, whatever they are.
class RawServer {
 public:
  explicit RawServer(const std::string& answer,
                     grpc_compression_algorithm compression = GRPC_COMPRESS_NONE);
  ~RawServer();

  std::string address() const;

 private:
  class Service;

  const std::unique_ptr<Service> _service;
  int _port = 0;
  std::unique_ptr<grpc::Server> _server;
};

}  // namespace tolvar_test
