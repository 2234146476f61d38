#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "remote/proxies.h"
#include "transport/grpc/grpc_communicator.h"

namespace tolvar_test {

/// A client's two proxies of one address.
class ServiceClient {
 public:
  explicit ServiceClient(const std::string& address,
                         const std::optional<tolvar::GrpcTlsFiles>& tls = std::nullopt)
      : _communicator(options(address, tls)) {
    _communicator.stringToProxy(kMain, main);
    _communicator.stringToProxy(kFast, fast);
  }

  ravel::CheckInfo check(const std::string& digest, std::int32_t confVersion = 1) {
    ravel::CheckReq request;
    request.contentMd5 = digest;
    request.confVersion = confVersion;
    ravel::CheckInfo info;
    main->checkChangeAdv(request, info);
    return info;
  }

  ravel::downloadInfo firstPage(std::uint32_t size = 50000) {
    ravel::downloadInfo page;
    fast->FirstTotalDownloadIPInfo(0, 0, size, page);
    return page;
  }

  ravel::TolvarPrx main;
  ravel::FTolvarPrx fast;

 private:
  static constexpr const char* kMain = "Test.Server.TolvarObj@tcp";
  static constexpr const char* kFast = "Test.Server.FTolvarObj@tcp";

  static tolvar::GrpcOptions options(const std::string& address,
                                     const std::optional<tolvar::GrpcTlsFiles>& tls) {
    tolvar::GrpcOptions options;
    options.endpoints = {{kMain, {address}}, {kFast, {address}}};
    options.tls = tls;
    return options;
  }

  tolvar::GrpcCommunicator _communicator;
};

}  // namespace tolvar_test
