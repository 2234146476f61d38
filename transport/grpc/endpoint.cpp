#include "transport/grpc/endpoint.h"

#include <utility>

#include "transport/grpc/channel_factory.h"

namespace tolvar {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr milliseconds kForgetAfter{30000};
constexpr milliseconds kShunFor{5000};
constexpr milliseconds kHastenEvery{500};

}  // namespace

Endpoint::Endpoint(std::string address, std::shared_ptr<ClientCredentials> credentials,
                   std::shared_ptr<const GrpcOptions> options)
    : _address(std::move(address)),
      _credentials(std::move(credentials)),
      _options(std::move(options)) {
  openChannel(_credentials->current());
}

void Endpoint::openChannel(std::shared_ptr<grpc::ChannelCredentials> credentials) {
  _channel = makeChannel(_address, credentials, *_options);
  _used = std::move(credentials);
}

std::shared_ptr<grpc::Channel> Endpoint::channel() const {
  const std::lock_guard lock(_mutex);
  return _channel;
}

void Endpoint::followCredentials() {
  std::shared_ptr<grpc::ChannelCredentials> now = _credentials->current();
  const std::lock_guard lock(_mutex);
  if (now != _used && _channel->GetState(false) != GRPC_CHANNEL_READY) openChannel(std::move(now));
}

bool Endpoint::isReady() const { return channel()->GetState(false) == GRPC_CHANNEL_READY; }

bool Endpoint::knownDown() const {
  const grpc_connectivity_state state = channel()->GetState(false);
  if (state == GRPC_CHANNEL_TRANSIENT_FAILURE) return true;
  const std::lock_guard lock(_mutex);
  if (!_failed) return false;
  const auto age = steady_clock::now() - _failedAt;
  return age < (state == GRPC_CHANNEL_READY ? kShunFor : kForgetAfter);
}

void Endpoint::probe(milliseconds limit) {
  followCredentials();
  const std::shared_ptr<grpc::Channel> probed = channel();
  const auto until = system_clock::now() + limit;
  for (;;) {
    const grpc_connectivity_state state = probed->GetState(true);
    if (state != GRPC_CHANNEL_IDLE && state != GRPC_CHANNEL_CONNECTING) return;
    if (!probed->WaitForStateChange(state, until)) return;
  }
}

void Endpoint::callSucceeded() {
  const std::lock_guard lock(_mutex);
  _failed = false;
}

void Endpoint::callFailed() {
  const std::lock_guard lock(_mutex);
  _failed = true;
  _failedAt = steady_clock::now();
}

void Endpoint::hastenReconnect() {
  {
    const std::lock_guard lock(_mutex);
    const auto now = steady_clock::now();
    if (now - _hastenedAt < kHastenEvery) return;
    _hastenedAt = now;
  }
  // Name resolution backs off up to minutes and takes no setting of its own.
  grpc::experimental::ChannelResetConnectionBackoff(channel().get());
}

}  // namespace tolvar
