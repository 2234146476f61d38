#include "tests/faults/failing_allocations.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

std::atomic<bool> armed{false};
std::atomic<std::int64_t> seen{0};
std::atomic<bool> failed{false};
std::atomic<std::int64_t> live{0};
std::int64_t firstFailing = 0;
std::int64_t endFailing = 0;
thread_local bool sparedThread = false;

bool failsNow() {
  if (!armed.load(std::memory_order_acquire) || sparedThread) return false;
  const std::int64_t number = ++seen;
  if (number < firstFailing || number >= endFailing) return false;
  failed = true;
  return true;
}

void* allocate(std::size_t size, std::size_t alignment) noexcept {
  if (failsNow()) return nullptr;
  const std::size_t rounded = (std::max<std::size_t>(size, 1) + alignment - 1) / alignment;
  void* const memory = std::aligned_alloc(alignment, rounded * alignment);
  if (memory != nullptr) ++live;
  return memory;
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
  void* const memory = allocate(size, alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void release(void* memory) noexcept {
  if (memory == nullptr) return;
  --live;
  std::free(memory);
}

constexpr std::size_t kUsual = alignof(std::max_align_t);

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size, kUsual); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, kUsual);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { release(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { release(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { release(memory); }

namespace tolvar_test {

void armAllocations(std::int64_t first, std::int64_t count) {
  firstFailing = first;
  endFailing = first + std::min(count, std::numeric_limits<std::int64_t>::max() - first);
  seen = 0;
  failed = false;
  armed.store(true, std::memory_order_release);
}

void healAllocations() { armed = false; }
bool allocationFailed() { return failed; }
void spareThisThread(bool spared) { sparedThread = spared; }
std::int64_t liveAllocations() { return live; }

}  // namespace tolvar_test
