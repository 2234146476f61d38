#pragma once

#include <sched.h>

#include <atomic>
#include <set>
#include <string>

#include "records/records.h"

/// One slot of the client configuration.
struct ClientConfWrapper {
  ravel::ClientConf conf;
  std::set<std::string> citys;  ///< the names of conf.simpleLogCitys, each once
};

/// Double buffer of a configuration: readers use one slot while the one writer fills the other.
///
/// Invariants:
///  1. Only the slot that the flag does not name is ever written.
///  2. A reader counts itself into a slot and then finds the flag still naming it, or leaves the
///     slot again; both sides use sequentially consistent operations, so the writer, which flips
///     the flag before it waits for the count of the old slot, cannot miss a reader that stays.
///  3. Hence no slot changes while a Reader of it exists.
///
/// Readers never wait for the writer; the writer waits for readers of the slot it is about to fill.
template <class T>
class ConfigDataWrapper {
 public:
  /// Keeps a slot as it is while in use; short-lived, on the stack of the reading thread.
  class Reader {
   public:
    ~Reader() { _count->fetch_sub(1, std::memory_order_release); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    const T* operator->() const noexcept { return _slot; }
    const T& operator*() const noexcept { return *_slot; }

   private:
    friend class ConfigDataWrapper;
    Reader(const T* slot, std::atomic<unsigned>* count) noexcept : _slot(slot), _count(count) {}
    const T* _slot;
    std::atomic<unsigned>* _count;
  };

  ConfigDataWrapper() = default;
  virtual ~ConfigDataWrapper() = default;
  ConfigDataWrapper(const ConfigDataWrapper&) = delete;
  ConfigDataWrapper& operator=(const ConfigDataWrapper&) = delete;

  /// The slot in use. Any thread.
  Reader getQueryData() const noexcept {
    for (;;) {
      const bool first = query_using_inst0_.load(std::memory_order_seq_cst);
      std::atomic<unsigned>& count = first ? readers0_ : readers1_;
      count.fetch_add(1, std::memory_order_seq_cst);
      if (query_using_inst0_.load(std::memory_order_seq_cst) == first)
        return Reader(first ? &inst0_ : &inst1_, &count);
      count.fetch_sub(1, std::memory_order_release);
    }
  }

  /// The slot to fill; waits until its last reader has left. The writer's thread only.
  T& getUpdateData() noexcept {
    const bool second = query_using_inst0_.load(std::memory_order_relaxed);
    const std::atomic<unsigned>& count = second ? readers1_ : readers0_;
    while (count.load(std::memory_order_seq_cst) != 0) sched_yield();
    return second ? inst1_ : inst0_;
  }

  /// Makes the filled slot the one in use. The writer's thread only.
  void swap() noexcept {
    query_using_inst0_.store(!query_using_inst0_.load(std::memory_order_relaxed),
                             std::memory_order_seq_cst);
  }

 private:
  T inst0_;
  T inst1_;
  std::atomic<bool> query_using_inst0_{true};
  mutable std::atomic<unsigned> readers0_{0};
  mutable std::atomic<unsigned> readers1_{0};
};
