#include "tests/index/allocation_count.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocations = 0;

void* allocateOrNull(std::size_t size, std::size_t alignment) noexcept {
  ++allocations;
  const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
  return std::aligned_alloc(alignment, rounded);
}

void* allocate(std::size_t size, std::size_t alignment) {
  void* const memory = allocateOrNull(size, alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size, alignof(std::max_align_t)); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocate(size, static_cast<std::size_t>(alignment));
}
// Without this one a sanitizer would hand its own memory out, which the deletes below do not know.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocateOrNull(size, alignof(std::max_align_t));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

std::size_t tolvar_test::allocationCount() noexcept { return allocations; }
