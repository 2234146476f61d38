#pragma once

#include <cstddef>
#include <cstdint>

/// What lies at the start of the shared segments, and handles of the regions in them.
/// docs/shared-memory.md draws the whole layout.

/// Interface version of the client: sent to the service and stamped into the size segment.
inline constexpr std::uint32_t kApiVersion = 20120704;
/// Ceiling of one answer from the service, in bytes (20 MiB).
inline constexpr std::size_t MAX_RECV_BUFFER = 20971520;
/// Smallest size that a data segment is made with, in bytes (64 MiB).
inline constexpr std::size_t kDefaultShmSize = 67108864;

enum MemoryStatus : std::uint32_t {
  kMemoryStatusReady = 1,
  kMemoryStatusPending = 2,
  kMemoryStatusUnknown = 3,
};

/// First 16 bytes of a data segment. A new segment holds zeros, which count as not ready.
struct MemoryHead {
  std::uint32_t ip_usable = 0;    ///< MemoryStatus of the IP table
  std::uint32_t code_usable = 0;  ///< MemoryStatus of the code tables
  std::uint8_t pad0 = 0;
  std::uint8_t pad1 = 0;
  std::uint8_t pad2 = 0;
  std::uint8_t pad3 = 0;
  std::uint8_t pad4 = 0;
  std::uint8_t pad5 = 0;
  std::uint16_t padding = 0;

  /// True when the segment may be read.
  bool ready() const noexcept {
    return ip_usable == kMemoryStatusReady && code_usable == kMemoryStatusReady;
  }
};
static_assert(sizeof(MemoryHead) == 16);
static_assert(offsetof(MemoryHead, code_usable) == 4 && offsetof(MemoryHead, pad0) == 8);

/// Content of the size segment: how large the data segments were last made.
struct ShmSize {
  std::uint64_t m_usable[16] = {};  ///< kApiVersion in every word when the record is valid
  std::uint64_t m_size = 0;         ///< bytes

  bool valid() const noexcept {
    for (const std::uint64_t word : m_usable)
      if (word != kApiVersion) return false;
    return true;
  }
};
static_assert(sizeof(ShmSize) == 136 && offsetof(ShmSize, m_size) == 128);

/// Handle of one region: an 8-byte size word and the block behind it.
class ProlatePointer {
 public:
  ProlatePointer() = default;
  virtual ~ProlatePointer() {
    m_ptr = nullptr;
    m_size = 0;
    m_data = nullptr;
  }
  ProlatePointer(const ProlatePointer&) = default;
  ProlatePointer& operator=(const ProlatePointer&) = default;

  /// Takes over the region whose size word lies at `ptr`. Aborts for null.
  void ReSet(void* ptr);

  /// Lays the region whose block of `size` bytes begins at `data`: writes the size word in front
  /// of it. Aborts for null.
  void ReSet(void* data, std::size_t size);

  void* GetPtr() const noexcept { return m_ptr; }
  std::size_t Size() const noexcept { return m_size; }
  void* Data() const noexcept { return m_data; }

 private:
  void* m_ptr = nullptr;
  std::size_t m_size = 0;
  void* m_data = nullptr;
};
