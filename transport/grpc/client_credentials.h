#pragma once

#include <grpcpp/security/credentials.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "transport/grpc/tls_files.h"

namespace tolvar {

/// What a communicator makes its connections with. Has no thread: whoever is about to connect has
/// the files read again. All operations may be called from any thread.
class ClientCredentials {
 public:
  /// Trusts `files->caFile` and shows `files->certFile` if there is one; without `files`,
  /// connections are in the clear. Throws ZU_Exception naming the file when one cannot be used.
  explicit ClientCredentials(const std::optional<GrpcTlsFiles>& files);

  ClientCredentials(const ClientCredentials&) = delete;
  ClientCredentials& operator=(const ClientCredentials&) = delete;

  /// The same object until the files hold something else that can be used. Looks at them when the
  /// last look is longer ago than their reload interval.
  std::shared_ptr<grpc::ChannelCredentials> current();

  /// Why the files as they are now are not used; empty when they are.
  std::string refusal() const;

 private:
  void follow();

  const std::unique_ptr<TlsFiles> _files;  ///< null: in the clear
  std::mutex _mutex;
  // Guarded by _mutex.
  std::chrono::steady_clock::time_point _lookAt{};
  std::shared_ptr<const TlsTexts> _texts;
  std::shared_ptr<grpc::ChannelCredentials> _credentials;
};

}  // namespace tolvar
