#include "transport/grpc/call_registry.h"

#include <grpcpp/client_context.h>

namespace tolvar {

CallRegistry::Call::Call(CallRegistry& registry, Family family)
    : _registry(registry), _family(family) {
  const std::lock_guard lock(_registry._mutex);
  _registry._calls.insert(this);
  _cancelled = _registry._ended;
}

CallRegistry::Call::~Call() {
  const std::lock_guard lock(_registry._mutex);
  _registry._calls.erase(this);
}

void CallRegistry::Call::attach(grpc::ClientContext& context) {
  const std::lock_guard lock(_registry._mutex);
  _context = &context;
  if (_cancelled) context.TryCancel();
}

void CallRegistry::Call::detach() {
  const std::lock_guard lock(_registry._mutex);
  _context = nullptr;
}

bool CallRegistry::Call::cancelled() const {
  const std::lock_guard lock(_registry._mutex);
  return _cancelled;
}

bool CallRegistry::Call::allEnded() const {
  const std::lock_guard lock(_registry._mutex);
  return _registry._ended;
}

bool CallRegistry::Call::pause(std::chrono::milliseconds duration) const {
  std::unique_lock lock(_registry._mutex);
  return !_registry._changed.wait_for(lock, duration, [this] { return _cancelled; });
}

CallRegistry::Family CallRegistry::newFamily() {
  const std::lock_guard lock(_mutex);
  return ++_lastFamily;
}

void CallRegistry::cancel(Family family) {
  const std::lock_guard lock(_mutex);
  for (Call* call : _calls)
    if (call->_family == family) cancelLocked(*call);
  _changed.notify_all();
}

void CallRegistry::end() {
  const std::lock_guard lock(_mutex);
  _ended = true;
  for (Call* call : _calls) cancelLocked(*call);
  _changed.notify_all();
}

void CallRegistry::cancelLocked(Call& call) {
  call._cancelled = true;
  if (call._context != nullptr) call._context->TryCancel();
}

}  // namespace tolvar
