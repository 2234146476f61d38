#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tolvar::tools {

/// The two parts of "HOST:PORT" or "[IPV6]:PORT".
struct HostPort {
  std::string host;  ///< without brackets
  std::uint16_t port = 0;
  bool isSix = false;  ///< the host is an IPv6 address
};

/// Nothing when `text` is neither.
std::optional<HostPort> parseHostPort(const std::string& text);

/// True for "unix:PATH", a socket in the file system.
bool isUnixSocket(const std::string& text);

/// "unix:PATH" with the path made absolute; any other text as it is.
std::string withAbsolutePath(const std::string& text);

}  // namespace tolvar::tools
