#include "tools/tolvard/server/grpc_server.h"

#include <grpc/grpc.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <grpcpp/health_check_service_interface.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/server_posix.h>

#include <algorithm>
#include <condition_variable>
#include <iterator>
#include <limits>
#include <mutex>
#include <thread>

#include "platform/exception.h"
#include "tolvar.grpc.pb.h"
#include "tools/tolvard/server/server_credentials.h"
#include "tools/tolvard/server/service_handlers.h"

namespace tolvar {
namespace {

// Threads of the synchronous side: server reflection, nothing else. Each stream of it keeps one
// while it is open; no other call needs any.
constexpr int kReflectionThreads = 32;
constexpr int kAgeGraceMillis = 60000;
constexpr int kKeepaliveMillis = 60000;
constexpr int kKeepaliveTimeoutMillis = 20000;
constexpr int kMinPingIntervalMillis = 5000;

int millis(std::chrono::milliseconds duration) {
  constexpr std::chrono::milliseconds::rep kMost = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(duration.count(), 1, kMost));
}

void enablePlugins() {
  // Both switches are the process's and only matter to servers built afterwards.
  static const bool enabled = [] {
    grpc::EnableDefaultHealthCheckService(true);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();
    return true;
  }();
  static_cast<void>(enabled);
}

void limitResources(grpc::ServerBuilder& builder, const GrpcServerOptions& options) {
  grpc::ResourceQuota quota("tolvar");
  quota.Resize(options.transportBytes);
  quota.SetMaxThreads(kReflectionThreads);
  builder.SetResourceQuota(quota);
  builder.SetMaxReceiveMessageSize(options.maxRequestBytes);
  // A compressed message would be unpacked whole before its size is checked.
  builder.AddChannelArgument(GRPC_ARG_ENABLE_PER_MESSAGE_DECOMPRESSION, 0);
  builder.AddChannelArgument(GRPC_COMPRESSION_CHANNEL_ENABLED_ALGORITHMS_BITSET,
                             1 << GRPC_COMPRESS_NONE);
  using Sync = grpc::ServerBuilder::SyncServerOption;
  builder.SetSyncServerOption(Sync::NUM_CQS, 1);
  builder.SetSyncServerOption(Sync::MIN_POLLERS, 1);
  builder.SetSyncServerOption(Sync::MAX_POLLERS, 1);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, options.maxStreams);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_IDLE_MS, millis(options.connectionIdle));
  builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_AGE_MS, millis(options.connectionAge));
  builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_AGE_GRACE_MS, kAgeGraceMillis);
}

void configureConnections(grpc::ServerBuilder& builder) {
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveMillis);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeoutMillis);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS,
                             kMinPingIntervalMillis);
}

// Clients that read their connections have closed them by then.
constexpr std::chrono::milliseconds kClosingTime{100};
constexpr std::chrono::milliseconds kClosingRound{10};

/// While it lives: closes the connections of a server that is shutting down once no call has been
/// under way for kClosingTime. The library itself waits for every client to close its own, and one
/// that is idle does not notice that it should.
class IdleCloser {
 public:
  IdleCloser(grpc::Server& server, const std::atomic<std::size_t>& calls)
      : _server(server), _calls(calls), _thread([this] { run(); }) {}

  ~IdleCloser() {
    {
      const std::lock_guard lock(_mutex);
      _isEnding = true;
    }
    _changed.notify_one();
    _thread.join();
  }

  IdleCloser(const IdleCloser&) = delete;
  IdleCloser& operator=(const IdleCloser&) = delete;

 private:
  void run() {
    std::unique_lock lock(_mutex);
    auto quiet = std::chrono::milliseconds(0);
    while (!_changed.wait_for(lock, kClosingRound, [this] { return _isEnding; })) {
      quiet = _calls.load(std::memory_order_relaxed) == 0 ? quiet + kClosingRound
                                                          : std::chrono::milliseconds(0);
      // Repeated, for a call may have slipped in before the server took no more.
      if (quiet >= kClosingTime) grpc_server_cancel_all_calls(_server.c_server());
    }
  }

  grpc::Server& _server;
  const std::atomic<std::size_t>& _calls;
  std::mutex _mutex;
  std::condition_variable _changed;
  bool _isEnding = false;  ///< guarded by _mutex
  std::thread _thread;
};

}  // namespace

struct GrpcServer::State {
  State(std::shared_ptr<service::LookupService> service, const GrpcServerOptions& options)
      : serving(std::move(service), options) {}

  void listen();
  std::vector<ListeningSocket> openSockets();
  void takeConnection(const ListeningSocket& from, int connection);
  void addServices(grpc::ServerBuilder& builder);
  void setServing(bool up);

  ServingContext serving;
  // The server uses the handlers until it is destroyed.
  std::unique_ptr<grpc::Service> main;
  std::unique_ptr<grpc::Service> fast;
  std::vector<int> ports;
  std::shared_ptr<grpc::ServerCredentials> credentials;  // asked until the server is destroyed
  std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> transport;
  std::unique_ptr<grpc::Server> server;
  // Hands connections to both of the above.
  std::unique_ptr<ConnectionAcceptor> acceptor;
};

void GrpcServer::State::addServices(grpc::ServerBuilder& builder) {
  if (serving.options.serveMain) {
    main = makeMainHandlers(serving);
    builder.RegisterService(main.get());
  }
  if (serving.options.serveFast) {
    fast = makeFastHandlers(serving);
    builder.RegisterService(fast.get());
  }
}

std::vector<ListeningSocket> GrpcServer::State::openSockets() {
  std::vector<ListeningSocket> all;
  for (const std::string& text : serving.options.listen) {
    auto sockets = ListeningSocket::open(parseListenAddress(text), kKeepaliveTimeoutMillis);
    ports.push_back(sockets.front().port());
    std::move(sockets.begin(), sockets.end(), std::back_inserter(all));
  }
  return all;
}

void GrpcServer::State::takeConnection(const ListeningSocket& from, int connection) {
  // The transport names a connection after its other end, which on a unix socket has no name; one
  // that it gets this way it names after the descriptor, so that each has its own download place.
  if (from.isUnix() && !serving.options.tls)
    return grpc::AddInsecureChannelFromFd(server.get(), connection);
  grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters parameters;
  parameters.listener_fd = from.descriptor();
  parameters.fd = connection;
  transport->HandleNewConnection(&parameters);
}

void GrpcServer::State::listen() {
  const GrpcServerOptions& options = serving.options;
  if (options.listen.empty()) throw qel::ZU_Exception("no address to listen on is given");
  if (!options.serveMain && !options.serveFast)
    throw qel::ZU_Exception("neither the main nor the fast object is to be served");
  enablePlugins();
  grpc::ServerBuilder builder;
  limitResources(builder, options);
  configureConnections(builder);
  credentials = options.tls ? serverCredentials(*options.tls, options.onTlsFiles)
                            : grpc::InsecureServerCredentials();
  // The library's own listening ends for good with the first error, a lack of descriptors included.
  transport = builder.experimental().AddExternalConnectionAcceptor(
      grpc::ServerBuilder::experimental_type::ExternalConnectionType::FROM_FD, credentials);
  addServices(builder);
  std::vector<ListeningSocket> sockets = openSockets();
  server = builder.BuildAndStart();
  if (!server) throw qel::ZU_Exception("the transport does not start");
  setServing(true);
  acceptor = std::make_unique<ConnectionAcceptor>(
      std::move(sockets),
      ConnectionAcceptor::Handlers{
          [this](const ListeningSocket& from, int connection) { takeConnection(from, connection); },
          options.onConnectionsFull, options.onConnectionsResumed});
}

void GrpcServer::State::setServing(bool up) {
  grpc::HealthCheckServiceInterface* health = server->GetHealthCheckService();
  if (health == nullptr) return;
  health->SetServingStatus(up);
  if (main) health->SetServingStatus(v1::TolvarObj::service_full_name(), up);
  if (fast) health->SetServingStatus(v1::FTolvarObj::service_full_name(), up);
}

GrpcServer::GrpcServer(std::shared_ptr<service::LookupService> service, GrpcServerOptions options)
    : _state(std::make_unique<State>(std::move(service), options)) {
  _state->listen();
}

GrpcServer::~GrpcServer() { shutdown(std::chrono::milliseconds(0)); }

const std::vector<int>& GrpcServer::ports() const noexcept { return _state->ports; }

std::size_t GrpcServer::activeDownloads() const { return _state->serving.gate.active(); }

std::uint64_t GrpcServer::refusedChecks() const noexcept {
  return _state->serving.refusedChecks.load(std::memory_order_relaxed);
}

void GrpcServer::prepare(const std::shared_ptr<const service::TableVersion>& version,
                         const std::stop_token& stop) {
  _state->serving.tables.prepare(version, stop);
}

void GrpcServer::dropOldVersions() {
  if (const auto version = _state->serving.service->current()) _state->serving.tables.of(version);
}

void GrpcServer::setServing(bool serving) { _state->setServing(serving); }

void GrpcServer::shutdown(std::chrono::milliseconds grace) {
  _state->acceptor->stop();
  const IdleCloser closer(*_state->server, _state->serving.calls);
  _state->server->Shutdown(std::chrono::system_clock::now() + grace);
}

}  // namespace tolvar
