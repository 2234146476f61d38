#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

#include "transport/grpc/call_registry.h"
#include "transport/grpc/endpoint.h"
#include "transport/grpc/page_bytes.h"
#include "transport/grpc/page_codec.h"

namespace tolvar {

/// Fetches the page that a download will ask for next while the one before is decoded.
///
/// Holds one call at most. Nothing reads its answer before `take`: until then the service works and
/// as much arrives as the connection takes, without a thread or memory of ours. It is an offer and
/// never an error: a page that could not be fetched is simply not there, and the caller asks for it
/// as for any other. All operations may be called from any thread.
class PageAhead {
 public:
  /// Its calls belong to `family` and end with it. `registry` outlives it. `method` is one of
  /// page_call.h, a literal.
  PageAhead(CallRegistry& registry, CallRegistry::Family family, const char* method);
  /// As `drop`.
  ~PageAhead();
  PageAhead(const PageAhead&) = delete;
  PageAhead& operator=(const PageAhead&) = delete;

  const char* method() const noexcept { return _method; }

  /// Asks `server` for the answer to `query`, which may take at most `limit`. Whatever was fetched
  /// before is dropped. Does nothing when that is not possible.
  void ask(const Endpoint& server, const wire::PageQuery& query, std::chrono::milliseconds limit);

  /// The answer of `server` to `query` if that is what was asked for, not longer ago than the limit
  /// given then; waits for it until `until`. Nothing, with whatever was fetched dropped, otherwise.
  std::optional<wire::PageBytes> take(const Endpoint& server, const wire::PageQuery& query,
                                      std::chrono::system_clock::time_point until);

  /// Cancels what is under way, waits for that and forgets what arrived.
  void drop();

 private:
  struct Fetch;

  std::unique_ptr<Fetch> exchange(std::unique_ptr<Fetch> fetch);

  CallRegistry& _registry;
  const CallRegistry::Family _family;
  const char* const _method;

  std::mutex _mutex;
  std::unique_ptr<Fetch> _fetch;  ///< guarded by _mutex
};

}  // namespace tolvar
