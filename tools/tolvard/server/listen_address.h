#pragma once

#include <string>

namespace tolvar {

/// An address to listen on.
struct ListenAddress {
  std::string host;  ///< without brackets; empty for a unix socket
  int port = 0;      ///< 0: any free one
  std::string path;  ///< of a unix socket, else empty
  std::string text;  ///< as it was given

  /// Nobody outside this machine reaches it.
  bool isLocal = false;

  /// The address with the port that it really has.
  std::string withPort(int real) const;
};

/// Reads "127.0.0.1:50061", "localhost:0", "[::1]:50061" or "unix:/path". Throws
/// std::invalid_argument saying what is expected.
ListenAddress parseListenAddress(const std::string& text);

}  // namespace tolvar
