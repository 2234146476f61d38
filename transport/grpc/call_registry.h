#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <unordered_set>

namespace grpc {
class ClientContext;
}

namespace tolvar {

/// The calls under way, so that they can be cancelled from other threads. Calls belong to families:
/// a proxy and those it selected. All operations may be called from any thread.
class CallRegistry {
 public:
  using Family = std::uint64_t;

  /// One call from its first attempt to its last; registered for its lifetime. The registry
  /// outlives it.
  class Call {
   public:
    /// After `end` the call is cancelled from the start.
    Call(CallRegistry& registry, Family family);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    /// Makes `context` the one that a cancellation reaches, until `detach`; it is cancelled at once
    /// if the call already was. `context` lives until `detach`.
    void attach(grpc::ClientContext& context);
    void detach();

    bool cancelled() const;

    /// Nothing else can be called any more either.
    bool allEnded() const;

    /// Sleeps for `duration` unless the call is cancelled; answers false when it is.
    bool pause(std::chrono::milliseconds duration) const;

   private:
    friend class CallRegistry;
    CallRegistry& _registry;
    const Family _family;
    // Guarded by the registry's mutex.
    grpc::ClientContext* _context = nullptr;
    bool _cancelled = false;
  };

  CallRegistry() = default;
  CallRegistry(const CallRegistry&) = delete;
  CallRegistry& operator=(const CallRegistry&) = delete;

  Family newFamily();

  /// Cancels the calls of `family` that are under way. Later calls are not touched.
  void cancel(Family family);

  /// Cancels all calls under way and refuses later ones.
  void end();

 private:
  void cancelLocked(Call& call);

  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  // Guarded by _mutex.
  std::unordered_set<Call*> _calls;
  Family _lastFamily = 0;
  bool _ended = false;
};

}  // namespace tolvar
