#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <new>
#include <utility>

#include "platform/thread.h"

namespace qel {

/// Bounded queue from many producers to a consumer. When it is full the newest item is refused and
/// counted, so that what was queued before a burst survives it. All operations may be called from
/// any thread.
template <class T>
class ZU_ThreadQueue {
 public:
  enum class Pushed { kFirst, kBehindOthers, kRefused };

  /// Holds at most `maxItems` items of `maxBytes` bytes in all.
  ZU_ThreadQueue(std::size_t maxItems, std::size_t maxBytes)
      : _maxItems(maxItems), _maxBytes(maxBytes) {}

  /// Queues an item that counts as `bytes` bytes, and tells whether the queue was empty before. One
  /// that there is no memory for is refused.
  Pushed push(T item, std::size_t bytes) {
    std::lock_guard<ZU_ThreadMutex> hold(_mutex);
    if (_items.size() >= _maxItems || bytes > _maxBytes - _bytes) {
      ++_refused;
      return Pushed::kRefused;
    }
    try {
      _items.push_back(std::move(item));
    } catch (const std::bad_alloc&) {
      ++_refused;
      return Pushed::kRefused;
    }
    _bytes += bytes;
    return _items.size() == 1 ? Pushed::kFirst : Pushed::kBehindOthers;
  }

  /// Takes everything that is queued, oldest first, into `items`, whose old content is lost.
  /// Answers how many items were refused since the last call; all of them came after the ones
  /// taken.
  std::uint64_t takeAll(std::deque<T>* items) {
    items->clear();
    std::lock_guard<ZU_ThreadMutex> hold(_mutex);
    items->swap(_items);
    _bytes = 0;
    return std::exchange(_refused, 0);
  }

  std::size_t size() const {
    std::lock_guard<ZU_ThreadMutex> hold(_mutex);
    return _items.size();
  }

 private:
  const std::size_t _maxItems;
  const std::size_t _maxBytes;
  mutable ZU_ThreadMutex _mutex;

  // Guarded by _mutex.
  std::deque<T> _items;
  std::size_t _bytes = 0;
  std::uint64_t _refused = 0;
};

}  // namespace qel
