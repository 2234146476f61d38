#pragma once

#include <string>

namespace tolvar_test {

/// A port of 127.0.0.1 that nothing else gets while this lives. Connections to it are refused, or,
/// when `listening`, taken by the kernel and never answered.
class DeadPort {
 public:
  explicit DeadPort(bool listening = false);
  ~DeadPort();
  DeadPort(const DeadPort&) = delete;
  DeadPort& operator=(const DeadPort&) = delete;

  int port() const noexcept { return _port; }
  std::string address() const;

 private:
  int _socket;
  int _port = 0;
};

std::string loopback(int port);

}  // namespace tolvar_test
