#pragma once

#include <cstddef>
#include <new>

namespace qel {

/// Size of the large pages that tables of at least this many bytes are put on where the system can.
inline constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;

/// Fresh, zeroed memory of the operating system that begins on a huge page, with the wish that the
/// whole huge pages inside be backed by such; the rest is on ordinary ones. Throws std::bad_alloc.
void* mapHugePages(std::size_t bytes);

/// Gives memory of mapHugePages(bytes) back.
void unmapHugePages(void* memory, std::size_t bytes) noexcept;

/// The same wish for memory that somebody else allocated and nobody has touched yet: for all whole
/// huge pages inside. Filling a large table then takes far fewer page faults.
void wishHugePages(void* memory, std::size_t bytes) noexcept;

/// Allocator for large tables that are read at random places: with few large pages, translating an
/// address seldom costs a memory access of its own. The memory is always fresh, because the system
/// does not soon put pages together that are in use already. Small requests are served as usual.
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
    void* const memory =
        bytes >= kHugePageBytes ? mapHugePages(bytes) : ::operator new(bytes, kSmallAlignment);
    return static_cast<T*>(memory);
  }
  void deallocate(T* memory, std::size_t count) noexcept {
    const std::size_t bytes = count * sizeof(T);
    if (bytes >= kHugePageBytes) {
      unmapHugePages(memory, bytes);
    } else {
      ::operator delete(memory, kSmallAlignment);
    }
  }

  template <class Other>
  bool operator==(const HugePageAllocator<Other>&) const noexcept {
    return true;
  }

 private:
  static constexpr std::align_val_t kSmallAlignment{alignof(T)};
};

}  // namespace qel
