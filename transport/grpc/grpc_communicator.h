#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "remote/communicator.h"
#include "transport/grpc/grpc_options.h"

namespace tolvar {

class ClientCredentials;
class Endpoint;
class EndpointSet;
struct GrpcCore;

/// Reaches lookup services over gRPC.
///
/// Objects that share an endpoint share its connection. A call waits for a connection up to its
/// deadline and then fails; meanwhile connecting is tried every 0.5 s at most. Without calls for
/// GrpcOptions::idleTimeout the connection is closed, and a server that is down is left alone.
///
/// When the bytes of a page have arrived, the next page of the same download is asked for and read
/// by a thread of its own while this one is decoded; see PageAhead. A proxy and those it selected
/// hold one such page at most; it goes with the last of them, and with `cancelCalls` and `end`.
///
/// Changed TLS files are noticed by the call after their reload interval, and used for the next
/// connection; one that stands is kept. While they cannot be used, connections are made as before,
/// and a call that finds none says which file it is and what is wrong.
///
/// Fork: gRPC does not work in a child that was forked after its parent had made a communicator.
/// Its calls, through a copy or a communicator of its own, are refused at once. It may destroy what
/// it has copies of. A server that forks its workers makes the first communicator in the workers.
///
/// All operations may be called from any thread. Proxies may outlive the communicator; their calls
/// then fail at once.
class GrpcCommunicator : public qel::Communicator {
 public:
  /// Does not connect. Throws ZU_Exception when an object has no endpoint or one that cannot be, a
  /// deadline is not in its bounds, the process is a forked child (see above), or a file of
  /// `options.tls` cannot be used.
  explicit GrpcCommunicator(GrpcOptions options);

  /// As `end`.
  ~GrpcCommunicator() override;

  GrpcCommunicator(const GrpcCommunicator&) = delete;
  GrpcCommunicator& operator=(const GrpcCommunicator&) = delete;

  /// Throws ZU_Exception when the options give no endpoints for `name`, or its suffix is that of
  /// the other object.
  void stringToProxy(const std::string& name, ravel::TolvarPrx& proxy) override;
  void stringToProxy(const std::string& name, ravel::FTolvarPrx& proxy) override;

  /// Cancels all calls under way, which then fail within 200 ms, and makes later ones fail at once.
  void end();

 private:
  std::shared_ptr<const EndpointSet> resolve(const std::string& name, const std::string& foreign);
  std::shared_ptr<Endpoint> endpointAt(const std::string& address);

  const std::shared_ptr<GrpcCore> _core;
  const std::shared_ptr<ClientCredentials> _credentials;

  std::mutex _mutex;
  // Guarded by _mutex.
  std::map<std::string, std::shared_ptr<Endpoint>> _endpoints;
  std::map<std::string, std::shared_ptr<const EndpointSet>> _sets;
};

}  // namespace tolvar
