#pragma once

#include <sched.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tolvar {

/// Number of the calling thread, counted from 0 in the order in which threads first ask.
inline std::size_t threadNumber() noexcept {
  static std::atomic<std::size_t> next{0};
  thread_local constinit std::size_t number = SIZE_MAX;
  if (number == SIZE_MAX) number = next.fetch_add(1, std::memory_order_relaxed);
  return number;
}

/// Copies of a `Content`, spread so that threads which write do not meet: each has a lock on a
/// cache line of its own, and a thread takes the one of its number, or the next free one.
///
/// Thread safety: all operations may be called from any thread. No wait is endless: a lock whose
/// holder does not exist any more, as after a fork, costs one shard and nothing else.
template <class Content, std::size_t kShards = 16>
class Shards {
 public:
  static constexpr std::size_t kCount = kShards;

  /// Runs `use(content)` on one shard. Answers false, having done nothing, when no shard could be
  /// had. An exception of `use` passes to the caller.
  template <class Use>
  bool withOne(Use use) {
    const std::size_t first = threadNumber();
    for (int round = 0; round < kRounds; ++round) {
      for (std::size_t i = 0; i < kShards; ++i) {
        Shard& shard = _shards[(first + i) % kShards];
        if (!shard.tryLock()) continue;
        const Release release{shard};
        use(shard.content);
        return true;
      }
      sched_yield();
    }
    return false;
  }

  /// Runs `use(content)` on every shard, one after the other. A shard that stays locked is left
  /// out.
  template <class Use>
  void withEach(Use use) {
    for (Shard& shard : _shards) {
      for (int round = 0; round < kRounds; ++round) {
        if (shard.tryLock()) {
          const Release release{shard};
          use(shard.content);
          break;
        }
        sched_yield();
      }
    }
  }

 private:
  /// Give up after this many turns of the processor; a holder needs one.
  static constexpr int kRounds = 10000;

  // 128 bytes: neighbouring cache lines are fetched in pairs.
  struct alignas(128) Shard {
    bool tryLock() noexcept {
      return !taken.load(std::memory_order_relaxed) &&
             !taken.exchange(true, std::memory_order_acquire);
    }

    std::atomic<bool> taken{false};
    Content content{};
  };

  struct Release {
    Shard& shard;
    ~Release() { shard.taken.store(false, std::memory_order_release); }
  };

  std::array<Shard, kShards> _shards;
};

}  // namespace tolvar
