#pragma once

#include <grpcpp/channel.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

namespace tolvar {

/// One server of the service: its address, its connection, and what is known of its health.
/// All operations may be called from any thread.
class Endpoint {
 public:
  using SteadyTime = std::chrono::steady_clock::time_point;

  Endpoint(std::string address, std::shared_ptr<grpc::Channel> channel);

  const std::string& address() const noexcept { return _address; }
  const std::shared_ptr<grpc::Channel>& channel() const noexcept { return _channel; }

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
  const std::string _address;
  const std::shared_ptr<grpc::Channel> _channel;

  mutable std::mutex _mutex;
  // Guarded by _mutex.
  bool _failed = false;
  SteadyTime _failedAt{};
  SteadyTime _hastenedAt{};
};

}  // namespace tolvar
