#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "transport/grpc/call_registry.h"
#include "transport/grpc/endpoint.h"
#include "transport/grpc/page_bytes.h"
#include "transport/grpc/page_codec.h"

namespace tolvar {

/// Fetches the page that a download will ask for next while the one before is decoded.
///
/// Holds one page at most, under way or arrived, as bytes. A thread of its own reads the answer; if
/// the processors leave that thread no time before the page is wanted, the caller reads it instead,
/// so that a busy machine is no worse off. The thread ends when there was nothing to read for the
/// idle time, and starts again with the next page asked for.
///
/// What is fetched ahead is an offer and never an error: a page that could not be fetched is simply
/// not there, and the caller asks for it as for any other. All operations may be called from any
/// thread.
class PageAhead {
 public:
  static constexpr std::chrono::seconds kIdleTime{1};

  /// Its calls belong to `family` and end with it. `registry` outlives it. `method` is one of
  /// page_request.h, a literal. `idleTime` 0 lets the thread end as soon as it has read a page.
  PageAhead(CallRegistry& registry, CallRegistry::Family family, const char* method,
            std::chrono::milliseconds idleTime = kIdleTime);
  /// Cancels what is under way and waits for the thread's end.
  ~PageAhead();
  PageAhead(const PageAhead&) = delete;
  PageAhead& operator=(const PageAhead&) = delete;

  const char* method() const noexcept { return _method; }

  /// How often its thread has been started.
  std::uint64_t threadStarts() const;

  /// Asks `server` for the answer to `query`, which may take at most `limit`. Whatever was fetched
  /// before is dropped. Does nothing when that is not possible.
  void ask(const Endpoint& server, const wire::PageQuery& query, std::chrono::milliseconds limit);

  /// The answer of `server` to `query` if that is what was asked for, not longer ago than the limit
  /// given then; waits for it until `until`. Nothing, with whatever was fetched dropped, otherwise.
  std::optional<wire::PageBytes> take(const Endpoint& server, const wire::PageQuery& query,
                                      std::chrono::system_clock::time_point until);

  /// Cancels what is under way and forgets what arrived.
  void drop();

 private:
  struct Fetch;

  /// Replaces what is held, for the thread to read.
  void hold(std::shared_ptr<Fetch> fetch);
  std::shared_ptr<Fetch> release();
  bool awaitReader(Fetch& fetch, std::chrono::system_clock::time_point until);
  void startReader();
  void read();  ///< what the thread does

  CallRegistry& _registry;
  const CallRegistry::Family _family;
  const char* const _method;
  const std::chrono::milliseconds _idleTime;

  mutable std::mutex _mutex;
  std::condition_variable _changed;
  // Guarded by _mutex, as are the states of fetches.
  std::shared_ptr<Fetch> _fetch;
  std::shared_ptr<Fetch> _reading;  ///< what the thread reads now
  std::thread _reader;
  std::uint64_t _threadStarts = 0;
  bool _hasReader = false;  ///< _reader waits or reads; otherwise it has ended or soon will
  bool _ending = false;
};

}  // namespace tolvar
