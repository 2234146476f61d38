#include "tests/transport_grpc/test_ports.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace tolvar_test {

DeadPort::DeadPort(bool listening) : _socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  void* const raw = &address;
  if (_socket < 0 || ::bind(_socket, static_cast<sockaddr*>(raw), length) != 0 ||
      (listening && ::listen(_socket, 16) != 0) ||
      ::getsockname(_socket, static_cast<sockaddr*>(raw), &length) != 0)
    throw std::runtime_error("cannot reserve a port");
  _port = ntohs(address.sin_port);
}

DeadPort::~DeadPort() { ::close(_socket); }

std::string DeadPort::address() const { return loopback(_port); }

std::string loopback(int port) { return "127.0.0.1:" + std::to_string(port); }

}  // namespace tolvar_test
