#pragma once

#include <atomic>
#include <set>
#include <string>
#include <utility>

#include "platform/read_epochs.h"
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
///  2. A reader begins its read section before it loads the flag and ends it after its last use of
///     the slot.
///  3. The writer flips the flag, and before it hands out the slot that is then out of use it waits
///     until every read section that had begun by then has ended. Hence no slot changes while a
///     Reader of it exists.
///
/// Readers never wait for the writer; the writer waits for readers.
template <class T>
class ConfigDataWrapper {
 public:
  /// Keeps a slot as it is while in use; short-lived, on the stack of the reading thread, which
  /// calls no `getUpdateData` meanwhile.
  class Reader {
   public:
    const T* operator->() const noexcept { return _slot; }
    const T& operator*() const noexcept { return *_slot; }

   private:
    friend class ConfigDataWrapper;
    explicit Reader(const ConfigDataWrapper& wrapper) noexcept : _slot(&wrapper.peek()) {}
    tolvar::ReadSection _section;  // first, so that it covers the load of the flag
    const T* _slot;
  };

  ConfigDataWrapper() = default;
  virtual ~ConfigDataWrapper() = default;
  ConfigDataWrapper(const ConfigDataWrapper&) = delete;
  ConfigDataWrapper& operator=(const ConfigDataWrapper&) = delete;

  /// The slot in use. Any thread.
  Reader getQueryData() const noexcept { return Reader(*this); }

  /// The same for a caller that has begun a read section of its own and ends it after its last use
  /// of the slot.
  const T& peek() const noexcept {
    return query_using_inst0_.load(std::memory_order_seq_cst) ? inst0_ : inst1_;
  }

  /// The slot to fill; waits until its last reader has left. The writer's thread only.
  T& getUpdateData() noexcept {
    tolvar::waitForReaders();
    return query_using_inst0_.load(std::memory_order_relaxed) ? inst1_ : inst0_;
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
};
