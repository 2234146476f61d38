#pragma once

#include <grpcpp/channel.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "transport/grpc/client_credentials.h"
#include "transport/grpc/grpc_options.h"

namespace tolvar {

/// One server of the service: its address, its connection, and what is known of its health.
/// All operations may be called from any thread.
class Endpoint {
 public:
  using SteadyTime = std::chrono::steady_clock::time_point;

  /// Does not connect.
  Endpoint(std::string address, std::shared_ptr<ClientCredentials> credentials,
           std::shared_ptr<const GrpcOptions> options);

  const std::string& address() const noexcept { return _address; }

  /// What calls are made with; calls under way keep theirs when it is replaced.
  std::shared_ptr<grpc::Channel> channel() const;

  /// Before a call: when the credentials have changed, and no connection stands, the next one is
  /// made with the new ones. One that stands is kept, as long as it lasts.
  void followCredentials();

  /// Why changed TLS files are not used for connections; empty when they are, or have not changed.
  std::string credentialsRefusal() const { return _credentials->refusal(); }

  bool isReady() const;

  /// True while connecting fails, and after a call that failed: for 30 s, or 5 s when a connection
  /// stands (the server hangs, or came back).
  bool knownDown() const;

  /// Starts connecting if nothing did and waits until that has succeeded or failed, at most
  /// `limit`.
  void probe(std::chrono::milliseconds limit);

  void callSucceeded();
  /// The call found no server, or one that did not answer in time.
  void callFailed();

  /// Lets a channel that waits before its next attempt to connect try now; at most once in 0.5 s.
  void hastenReconnect();

 private:
  void openChannel(std::shared_ptr<grpc::ChannelCredentials> credentials);

  const std::string _address;
  const std::shared_ptr<ClientCredentials> _credentials;
  const std::shared_ptr<const GrpcOptions> _options;

  mutable std::mutex _mutex;
  // Guarded by _mutex.
  std::shared_ptr<grpc::ChannelCredentials> _used;  ///< by the channel
  std::shared_ptr<grpc::Channel> _channel;
  bool _failed = false;
  SteadyTime _failedAt{};
  SteadyTime _hastenedAt{};
};

}  // namespace tolvar
