#include "transport/grpc/endpoint.h"

#include <utility>

namespace tolvar {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr milliseconds kForgetAfter{30000};
constexpr milliseconds kShunFor{5000};
constexpr milliseconds kHastenEvery{500};

}  // namespace

Endpoint::Endpoint(std::string address, std::shared_ptr<grpc::Channel> channel)
    : _address(std::move(address)), _channel(std::move(channel)) {}

bool Endpoint::isReady() const { return _channel->GetState(false) == GRPC_CHANNEL_READY; }

bool Endpoint::knownDown() const {
  const grpc_connectivity_state state = _channel->GetState(false);
  if (state == GRPC_CHANNEL_TRANSIENT_FAILURE) return true;
  const std::lock_guard lock(_mutex);
  if (!_failed) return false;
  const auto age = steady_clock::now() - _failedAt;
  return age < (state == GRPC_CHANNEL_READY ? kShunFor : kForgetAfter);
}

void Endpoint::probe(milliseconds limit) {
  const auto until = system_clock::now() + limit;
  for (;;) {
    const grpc_connectivity_state state = _channel->GetState(true);
    if (state != GRPC_CHANNEL_IDLE && state != GRPC_CHANNEL_CONNECTING) return;
    if (!_channel->WaitForStateChange(state, until)) return;
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
  grpc::experimental::ChannelResetConnectionBackoff(_channel.get());
}

}  // namespace tolvar
