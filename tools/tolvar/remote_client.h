#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/tolvar/client_session.h"

namespace tolvar::tools {

/// How to reach a service.
struct ServiceAddress {
  std::vector<std::string> endpoints;  ///< "host:port"; several serve the same table
  std::string caFile;                  ///< not empty: encrypted
  std::string certFile;
  std::string keyFile;
  std::string authority;  ///< name in the server's certificate, when it is not the host
};

/// A client of a service in another process. Throws qel::ZU_Exception when the address is no good.
std::unique_ptr<ClientSession> makeRemoteClient(const ServiceAddress& address);

}  // namespace tolvar::tools
