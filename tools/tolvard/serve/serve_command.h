#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/shared/exit_status.h"
#include "tools/tolvard/server/grpc_server.h"
#include "tools/tolvard/server/listen_address.h"
#include "tools/tolvard/store_option.h"

namespace tolvar::tools {

/// `tolvard serve`: serves the newest version until SIGTERM or SIGINT. Throws std::exception when
/// it cannot begin to.
class ServeCommand {
 public:
  void declare(CLI::App& app);
  ExitStatus run();

 private:
  void readAddresses();
  GrpcServerOptions serverOptions() const;

  StoreOption _store;
  std::vector<std::string> _listen{"127.0.0.1:50061"};
  std::string _fastListen;
  std::size_t _maxDownloads = GrpcServerOptions().maxDownloads;
  GrpcTlsFiles _tls;
  bool _insecure = false;
  bool _verbose = false;

  std::vector<ListenAddress> _addresses;
};

}  // namespace tolvar::tools
