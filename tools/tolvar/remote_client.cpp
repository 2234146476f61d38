#include "tools/tolvar/remote_client.h"

#include "transport/grpc/grpc_communicator.h"
#include "transport/grpc/grpc_log.h"

namespace tolvar::tools {
namespace {

GrpcOptions optionsFor(const ServiceAddress& address) {
  GrpcOptions options;
  options.endpoints[kMainObject] = address.endpoints;
  options.endpoints[kFastObject] = address.endpoints;
  if (!address.caFile.empty()) {
    options.tls.emplace();
    options.tls->caFile = address.caFile;
    options.tls->certFile = address.certFile;
    options.tls->keyFile = address.keyFile;
    options.authority = address.authority;
  }
  return options;
}

class RemoteClient : public ClientSession {
 public:
  explicit RemoteClient(const ServiceAddress& address)
      : _endpoints(address.endpoints), _communicator(optionsFor(address)) {}
  ~RemoteClient() override { endClient(); }

  void cancelCalls() override { _communicator.end(); }

 private:
  qel::Communicator& communicator() override { return _communicator; }

  std::string serviceName() const override {
    std::string names;
    for (const std::string& endpoint : _endpoints) names += (names.empty() ? "" : ", ") + endpoint;
    return names;
  }

  /// With an image found at the start, whatever it holds answers; the service may be out of reach.
  bool settled(const TolvarStatus& status) const override {
    return status.publications > 0 || status.fromImage;
  }

  const std::vector<std::string> _endpoints;
  GrpcCommunicator _communicator;
};

}  // namespace

std::unique_ptr<ClientSession> makeRemoteClient(const ServiceAddress& address) {
  silenceGrpcLibrary();
  return std::make_unique<RemoteClient>(address);
}

}  // namespace tolvar::tools
