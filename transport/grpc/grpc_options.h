#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "transport/grpc/wire_limits.h"

namespace tolvar {

/// Files of an encrypted connection, PEM. They are read again when they change (noticed within
/// `reloadInterval`). What cannot be used (an empty or damaged file, a key that is not the
/// certificate's) is not taken, and what was read before stays: so the files may be replaced one
/// after the other. Files of at most 1 MiB; the key is not encrypted.
struct GrpcTlsFiles {
  std::string caFile;    ///< authorities that the peer's certificate must come from
  std::string certFile;  ///< own certificate chain; empty (client only): show none
  std::string keyFile;   ///< key of `certFile`
  std::chrono::seconds reloadInterval{10};  ///< 1 s or more
};

/// How a GrpcCommunicator reaches the service.
struct GrpcOptions {
  /// Endpoints ("host:port", "[v6]:port" or "unix:path") of every object name.
  std::map<std::string, std::vector<std::string>> endpoints;

  /// Most time of a change check, of fetching the configuration and of a report, connecting
  /// included; 1 ms to 24 hours.
  std::chrono::milliseconds checkDeadline{3000};

  /// The same for a page and for the code tables.
  std::chrono::milliseconds pageDeadline{10000};

  /// Encryption; without it connections are in the clear.
  std::optional<GrpcTlsFiles> tls;

  /// Name that the server's certificate must carry, when it is not the endpoint's host. Only with
  /// tls.
  std::string authority;

  /// Largest answer accepted, in bytes; a larger one fails the call.
  int maxReceiveBytes = wire::MAX_RECV_BUFFER;

  /// After this time without a byte during a call the connection is probed, and given up when
  /// nothing comes back within `keepaliveTimeout`.
  std::chrono::milliseconds keepaliveTime{10000};
  std::chrono::milliseconds keepaliveTimeout{5000};

  /// A connection without calls is closed after this time (1 s or more); the next call opens it
  /// again.
  std::chrono::milliseconds idleTimeout{30000};

  /// One attempt to connect takes at most this long.
  std::chrono::milliseconds connectTimeout{2000};
};

}  // namespace tolvar
