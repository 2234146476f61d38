#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "service/lookup_service.h"
#include "tools/tolvard/server/connection_acceptor.h"
#include "transport/grpc/grpc_options.h"

namespace tolvar {

/// One call, after it was answered.
struct GrpcCallRecord {
  std::string operation;        ///< name on the wire, "DownloadPage" for example
  std::string peer;             ///< as gRPC writes it, "ipv4:192.0.2.1:4711" for example; over a
                                ///< unix socket "fd:17", with encryption "unix:"
  std::string status;           ///< "OK" or the status' name
  std::string message;          ///< cause of a failure
  std::int64_t micros = 0;      ///< time taken to compute the answer
  std::size_t answerBytes = 0;  ///< of pages and code tables, else 0
};

/// How a GrpcServer serves.
struct GrpcServerOptions {
  /// Addresses to listen on, as parseListenAddress takes them: "127.0.0.1:0" (0: any free port),
  /// "[::1]:4000", "unix:/path".
  std::vector<std::string> listen;

  /// Encryption. With a CA file, clients must show a certificate from it.
  std::optional<GrpcTlsFiles> tls;

  /// Called when the files of `tls` have changed, from a thread of the server's: with an empty text
  /// when they are used from now on, else with why they are not. Quick, no exceptions. May be
  /// empty.
  std::function<void(const std::string& refusal)> onTlsFiles;

  /// Which of the two objects are served here.
  bool serveMain = true;
  bool serveFast = true;

  /// Full downloads at a time; beyond them, change checks that would start one answer isNetFlow 1.
  /// One for each connection, but one for all those over unix sockets with encryption.
  std::size_t maxDownloads = 256;

  /// Largest request accepted, in bytes.
  int maxRequestBytes = wire::kMaxRequestBytes;

  /// Memory that the transport may use for connections and requests, in bytes. The table's wire
  /// form is not part of it.
  std::size_t transportBytes = 268435456;

  /// Memory for pages that cannot be shared because they have another size than 50000, in bytes;
  /// beyond it such requests fail with RESOURCE_EXHAUSTED until earlier ones are sent.
  std::size_t privatePageBytes = 67108864;

  /// Calls at a time on one connection.
  int maxStreams = 64;

  /// Connections without calls are closed after this time, all connections after `connectionAge`
  /// (calls under way get a minute more).
  std::chrono::milliseconds connectionIdle{300000};
  std::chrono::milliseconds connectionAge{3600000};

  /// Called after every call, from the transport's threads; quick, no exceptions. May be empty.
  std::function<void(const GrpcCallRecord&)> onCall;

  /// Called when connections wait because descriptors or memory have run out, and when there is
  /// room again; quick, no exceptions. May be empty.
  std::function<void(const ConnectionShortage&)> onConnectionsFull;
  std::function<void()> onConnectionsResumed;

  qel::Clock* clock = &qel::systemClock();  ///< of the download places; outlives the server
};

/// Serves a LookupService over gRPC, with the standard health service and server reflection.
///
/// Pages of 50000 ranges are encoded once per version and shared by all calls; a call costs the
/// server no table memory, however slowly it is read. All operations may be called from any thread.
class GrpcServer {
 public:
  /// Listens at once. Throws ZU_Exception when an address cannot be had, a TLS file cannot be used,
  /// or nothing is to be served; std::invalid_argument when a text is no address.
  GrpcServer(std::shared_ptr<service::LookupService> service, GrpcServerOptions options);

  /// Shuts down without grace.
  ~GrpcServer();

  GrpcServer(const GrpcServer&) = delete;
  GrpcServer& operator=(const GrpcServer&) = delete;

  /// Port of each listened address, in order; 1 for unix sockets.
  const std::vector<int>& ports() const noexcept;

  /// Full downloads under way now.
  std::size_t activeDownloads() const;

  /// Change checks answered isNetFlow 1 because all download places were taken.
  std::uint64_t refusedChecks() const noexcept;

  /// Encodes a version that will be published soon instead of with the first calls; gives up, a
  /// page later at most, when `stop` is requested. Throws wire::WireError when it cannot be told on
  /// the wire.
  void prepare(const std::shared_ptr<const service::TableVersion>& version,
               const std::stop_token& stop = {});

  /// Lets go of the wire form of versions before the one published last. Without this, they stay
  /// until the next call.
  void dropOldVersions();

  /// What the health service answers for the server and its objects; true from the start.
  void setServing(bool serving);

  /// Takes no more calls, lets those of the two objects that are under way finish for at most
  /// `grace`, then cancels them; connections without such calls do not hold it up. Blocks until all
  /// have ended. A second call returns at once.
  void shutdown(std::chrono::milliseconds grace);

 private:
  struct State;
  const std::unique_ptr<State> _state;
};

}  // namespace tolvar
