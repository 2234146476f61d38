#include "tools/tolvard/server/listen_address.h"

#include <arpa/inet.h>
#include <sys/un.h>

#include <stdexcept>

#include "service/text_source.h"
#include "tools/shared/host_port.h"

namespace tolvar {
namespace {

constexpr std::uint32_t kLoopbackNetwork = 127;
constexpr std::string_view kUnixPrefix = "unix:";
/// The system's limit, less the zero behind it.
constexpr std::size_t kMaxUnixPath = sizeof(sockaddr_un::sun_path) - 1;

bool isLocalHost(const std::string& host) {
  in6_addr six{};
  if (inet_pton(AF_INET6, host.c_str(), &six) == 1) return IN6_IS_ADDR_LOOPBACK(&six);
  in_addr four{};
  if (inet_pton(AF_INET, host.c_str(), &four) == 1)
    return ntohl(four.s_addr) >> 24 == kLoopbackNetwork;
  return host == "localhost";
}

[[noreturn]] void refuse(const std::string& text) {
  throw std::invalid_argument(service::quoted(text) +
                              " is no address to listen on; expected HOST:PORT with a port from 0 "
                              "to 65535, [IPV6]:PORT or unix:PATH");
}

std::string unixPath(const std::string& text) {
  std::string path = text.substr(kUnixPrefix.size());
  if (path.empty() || path.find(char{0}) != std::string::npos) refuse(text);
  if (path.size() > kMaxUnixPath)
    throw std::invalid_argument(service::quoted(text) +
                                " is no address to listen on: the path of a unix socket has at "
                                "most " +
                                std::to_string(kMaxUnixPath) + " bytes, this one has " +
                                std::to_string(path.size()) + "; take a shorter one");
  return path;
}

}  // namespace

std::string ListenAddress::withPort(int real) const {
  if (host.empty()) return text;
  const bool isSix = host.find(':') != std::string::npos;
  return (isSix ? "[" + host + "]" : host) + ":" + std::to_string(real);
}

ListenAddress parseListenAddress(const std::string& text) {
  ListenAddress address;
  address.text = text;
  if (tools::isUnixSocket(text)) {
    address.path = unixPath(text);
    address.isLocal = true;
    return address;
  }
  const auto parts = tools::parseHostPort(text);
  if (!parts) refuse(text);
  address.host = parts->host;
  address.port = parts->port;
  address.isLocal = isLocalHost(address.host);
  return address;
}

}  // namespace tolvar
