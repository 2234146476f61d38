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
/// Fork: gRPC does not work in a process that was forked from one which had made a communicator.
/// There the constructor, `stringToProxy` and calls throw ZU_Exception at once, the other
/// operations do nothing, and the destructor leaves the parent's connections alone. A server that
/// forks its workers makes the first communicator in the workers.
///
/// All operations may be called from any thread. Proxies may outlive the communicator; their calls
/// then fail at once.
class GrpcCommunicator : public qel::Communicator {
 public:
  /// Does not connect. Throws ZU_Exception when an object has no or an empty endpoint, a deadline
  /// is not positive, or a file of `options.tls` cannot be used, and in a forked copy.
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

  // Set by the constructor.
  std::shared_ptr<GrpcCore> _core;
  std::shared_ptr<ClientCredentials> _credentials;

  std::mutex _mutex;
  // Guarded by _mutex.
  std::map<std::string, std::shared_ptr<Endpoint>> _endpoints;
  std::map<std::string, std::shared_ptr<const EndpointSet>> _sets;
};

}  // namespace tolvar
