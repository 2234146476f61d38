#pragma once

#include <cstddef>
#include <new>

namespace qel {

/// Bytes of the large pages that memory of at least this size is put on where the system allows.
inline constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;

/// Asks the system to back the whole huge pages inside [`begin`, `begin` + `bytes`) with such pages
/// and leaves the rest as it is. A wish only: nothing is reported when it is not granted.
void preferHugePages(void* begin, std::size_t bytes) noexcept;

/// Allocator for large tables that are read at random places: with few large pages, translating an
/// address seldom costs a memory access of its own. Small requests are served as usual.
template <class T>
class HugePageAllocator {
 public:
  using value_type = T;

  HugePageAllocator() noexcept = default;
  template <class Other>
  HugePageAllocator(const HugePageAllocator<Other>&) noexcept {}

  T* allocate(std::size_t count) {
    if (count > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_array_new_length();
    const std::size_t bytes = count * sizeof(T);
    void* const memory = ::operator new(bytes, alignmentOf(bytes));
    if (bytes >= kHugePageBytes) preferHugePages(memory, bytes);
    return static_cast<T*>(memory);
  }
  void deallocate(T* memory, std::size_t count) noexcept {
    ::operator delete(memory, alignmentOf(count * sizeof(T)));
  }

  template <class Other>
  bool operator==(const HugePageAllocator<Other>&) const noexcept {
    return true;
  }

 private:
  static constexpr std::align_val_t alignmentOf(std::size_t bytes) noexcept {
    return std::align_val_t{bytes >= kHugePageBytes ? kHugePageBytes : alignof(T)};
  }
};

}  // namespace qel
