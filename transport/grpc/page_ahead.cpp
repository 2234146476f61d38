#include "transport/grpc/page_ahead.h"

#include <grpcpp/client_context.h>

#include <exception>
#include <utility>

#include "tolvar.pb.h"
#include "transport/grpc/bytes_call.h"
#include "transport/grpc/page_request.h"

namespace tolvar {

using std::chrono::steady_clock;
using std::chrono::system_clock;

/// One call. What a cancellation needs stands before the call begins.
struct PageAhead::Fetch {
  enum class State { Sent, Claimed, Ended };

  Fetch(CallRegistry& registry, CallRegistry::Family family, const Endpoint& server,
        const wire::PageQuery& asked, std::chrono::milliseconds limit)
      : channel(server.channel()),
        query(asked),
        until(steady_clock::now() + limit),
        registration(registry, family) {
    context.set_deadline(system_clock::now() + limit);
    registration.attach(context);
  }

  void send(const char* method) {
    call = std::make_unique<BytesCall>(channel, method, context, pageRequest(query));
  }

  bool answers(const Endpoint& server, const wire::PageQuery& other) const {
    return server.channel() == channel && other.cursor() == query.cursor() &&
           other.size == query.size && steady_clock::now() < until;
  }

  /// Only by whoever claimed it.
  void read(system_clock::time_point limit) {
    try {
      if (call->await(limit) && call->status().ok()) bytes.emplace(call->answer());
    } catch (const std::exception&) {
      // Whoever needs the page asks again and is told.
    }
  }

  const std::shared_ptr<grpc::Channel> channel;
  const wire::PageQuery query;
  const steady_clock::time_point until;
  grpc::ClientContext context;
  CallRegistry::Call registration;  // behind the context, which it may cancel until it goes
  std::unique_ptr<BytesCall> call;
  std::optional<wire::PageBytes> bytes;
  State state = State::Sent;
};

PageAhead::PageAhead(CallRegistry& registry, CallRegistry::Family family, const char* method,
                     std::chrono::milliseconds idleTime)
    : _registry(registry), _family(family), _method(method), _idleTime(idleTime) {}

PageAhead::~PageAhead() {
  {
    const std::lock_guard lock(_mutex);
    _ending = true;
    if (_reading) _reading->context.TryCancel();
  }
  _changed.notify_all();
  if (_reader.joinable()) _reader.join();
}

std::uint64_t PageAhead::threadStarts() const {
  const std::lock_guard lock(_mutex);
  return _threadStarts;
}

void PageAhead::ask(const Endpoint& server, const wire::PageQuery& query,
                    std::chrono::milliseconds limit) {
  drop();
  try {
    auto fetch = std::make_shared<Fetch>(_registry, _family, server, query, limit);
    if (fetch->registration.cancelled()) return;
    fetch->send(_method);
    hold(std::move(fetch));
  } catch (const std::exception&) {
    // There is no memory for it.
  }
}

std::optional<wire::PageBytes> PageAhead::take(const Endpoint& server, const wire::PageQuery& query,
                                               system_clock::time_point until) {
  const std::shared_ptr<Fetch> fetch = release();
  if (!fetch) return std::nullopt;
  if (!fetch->answers(server, query) || !awaitReader(*fetch, until)) {
    fetch->context.TryCancel();
    return std::nullopt;
  }
  return std::move(fetch->bytes);
}

void PageAhead::drop() {
  if (const std::shared_ptr<Fetch> fetch = release()) fetch->context.TryCancel();
}

void PageAhead::hold(std::shared_ptr<Fetch> fetch) {
  std::shared_ptr<Fetch> other;  // destroyed without the lock
  const std::lock_guard lock(_mutex);
  other = std::exchange(_fetch, std::move(fetch));
  startReader();
  _changed.notify_all();
}

std::shared_ptr<PageAhead::Fetch> PageAhead::release() {
  const std::lock_guard lock(_mutex);
  return std::exchange(_fetch, nullptr);
}

/// Reads what the thread did not come to, or waits for it. False when the thread still reads at
/// `until`.
bool PageAhead::awaitReader(Fetch& fetch, system_clock::time_point until) {
  std::unique_lock lock(_mutex);
  if (fetch.state != Fetch::State::Sent)
    return _changed.wait_until(lock, until, [&] { return fetch.state == Fetch::State::Ended; });
  fetch.state = Fetch::State::Claimed;
  lock.unlock();
  fetch.read(until);
  return true;
}

/// The caller holds _mutex.
void PageAhead::startReader() {
  if (_hasReader) return;
  try {
    if (_reader.joinable()) _reader.join();
    _reader = std::thread([this] { read(); });
    _hasReader = true;
    ++_threadStarts;
  } catch (const std::exception&) {
    // Without a thread whoever takes the page reads it.
  }
}

void PageAhead::read() {
  std::unique_lock lock(_mutex);
  const auto hasWork = [this] {
    return _ending || (_fetch && _fetch->state == Fetch::State::Sent);
  };
  while (_changed.wait_for(lock, _idleTime, hasWork) && !_ending) {
    _reading = _fetch;
    _reading->state = Fetch::State::Claimed;
    lock.unlock();
    _reading->read(system_clock::time_point::max());
    lock.lock();
    _reading->state = Fetch::State::Ended;
    std::shared_ptr<Fetch> ended = std::exchange(_reading, nullptr);
    lock.unlock();
    _changed.notify_all();
    ended.reset();
    lock.lock();
  }
  _hasReader = false;
}

}  // namespace tolvar
