#include "transport/grpc/grpc_communicator.h"

#include <sys/un.h>

#include <string_view>

#include "platform/exception.h"
#include "transport/grpc/client_credentials.h"
#include "transport/grpc/endpoint_set.h"
#include "transport/grpc/grpc_proxies.h"
#include "transport/grpc/page_request.h"

namespace tolvar {
namespace {

constexpr const char* kMainSuffix = ".TolvarObj@tcp";
constexpr const char* kFastSuffix = ".FTolvarObj@tcp";

/// A moment that the system's clock can tell must lie behind every call.
constexpr std::chrono::hours kLongestDeadline{24};

constexpr std::string_view kUnixPrefix = "unix:";
constexpr std::size_t kLongestUnixPath = sizeof(sockaddr_un::sun_path) - 1;

void checkEndpoint(const std::string& name, const std::string& address) {
  if (address.empty()) throw qel::ZU_Exception("the object " + name + " has an empty endpoint");
  if (address.starts_with(kUnixPrefix) && address.size() > kUnixPrefix.size() + kLongestUnixPath)
    throw qel::ZU_Exception("the endpoint " + address + " of the object " + name +
                            " cannot be: the path of a unix socket has at most " +
                            std::to_string(kLongestUnixPath) + " bytes; take a shorter one");
}

void checkOptions(const GrpcOptions& options) {
  for (const auto& [name, addresses] : options.endpoints) {
    if (addresses.empty()) throw qel::ZU_Exception("the object " + name + " has no endpoint");
    for (const std::string& address : addresses) checkEndpoint(name, address);
  }
  for (const std::chrono::milliseconds deadline : {options.checkDeadline, options.pageDeadline})
    if (deadline.count() <= 0 || deadline > kLongestDeadline)
      throw qel::ZU_Exception("a deadline must be from 1 ms to 24 hours");
  if (options.maxReceiveBytes <= 0)
    throw qel::ZU_Exception("the receive limit must be at least 1 byte");
  if (!options.tls && !options.authority.empty())
    throw qel::ZU_Exception("an authority only serves encrypted connections");
}

GrpcOptions checked(GrpcOptions options) {
  checkOptions(options);
  return options;
}

}  // namespace

GrpcCommunicator::GrpcCommunicator(GrpcOptions options)
    : _core(ownedByThisProcess(std::make_unique<GrpcCore>(checked(std::move(options))))),
      _credentials(std::make_shared<ClientCredentials>(_core->options.tls)) {}

GrpcCommunicator::~GrpcCommunicator() { end(); }

void GrpcCommunicator::end() {
  if (!_core->process.isForkedCopy()) _core->calls.end();
}

void GrpcCommunicator::stringToProxy(const std::string& name, ravel::TolvarPrx& proxy) {
  proxy = std::make_shared<GrpcTolvarProxy>(
      GrpcTarget(_core, resolve(name, kFastSuffix), kDownloadPageMethod));
}

void GrpcCommunicator::stringToProxy(const std::string& name, ravel::FTolvarPrx& proxy) {
  proxy = std::make_shared<GrpcFTolvarProxy>(
      GrpcTarget(_core, resolve(name, kMainSuffix), kFirstDownloadPageMethod));
}

std::shared_ptr<const EndpointSet> GrpcCommunicator::resolve(const std::string& name,
                                                             const std::string& foreign) {
  if (_core->process.isForkedCopy()) throw qel::ZU_Exception(kLostInFork);
  if (name.ends_with(foreign))
    throw qel::ZU_Exception("the object name " + name + " is one of the other object (" + foreign +
                            ")");
  const auto configured = _core->options.endpoints.find(name);
  if (configured == _core->options.endpoints.end())
    throw qel::ZU_Exception("no endpoints are configured for the object name \"" + name +
                            "\"; give them in GrpcOptions::endpoints");
  const std::lock_guard lock(_mutex);
  std::shared_ptr<const EndpointSet>& set = _sets[name];
  if (!set) {
    EndpointSet::Endpoints endpoints;
    for (const std::string& address : configured->second) endpoints.push_back(endpointAt(address));
    set = ownedByThisProcess(std::make_unique<const EndpointSet>(std::move(endpoints)));
  }
  return set;
}

std::shared_ptr<Endpoint> GrpcCommunicator::endpointAt(const std::string& address) {
  std::shared_ptr<Endpoint>& endpoint = _endpoints[address];
  if (!endpoint)
    endpoint = std::make_shared<Endpoint>(
        address, _credentials, std::shared_ptr<const GrpcOptions>(_core, &_core->options));
  return endpoint;
}

}  // namespace tolvar
