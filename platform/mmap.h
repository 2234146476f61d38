#pragma once

#include <cstddef>
#include <string>

namespace qel {

/// A file mapped read-write and shared. Used by one thread at a time.
class ZU_Mmap {
 public:
  ZU_Mmap() = default;
  ~ZU_Mmap() { munmap(); }
  ZU_Mmap(const ZU_Mmap&) = delete;
  ZU_Mmap& operator=(const ZU_Mmap&) = delete;

  /// Maps the first `length` bytes of `path`, creating the file (mode 0644) and extending it with
  /// zero bytes as needed. The bytes are really allocated on the disk, so that a later write to the
  /// mapping cannot fail. An earlier mapping of this object is released first.
  /// Throws ZU_Exception naming the step, the path and the cause.
  void mmap(const std::string& path, std::size_t length);

  /// Writes `size` bytes at `offset` of the mapped file through the file, so that it is safe when
  /// somebody else has cut the file, where a write to the mapping would end the process. Answers
  /// false, with errno set, when that is not possible (disk full, nothing mapped).
  bool write(std::size_t offset, const void* data, std::size_t size) noexcept;

  /// Releases the mapping; the file stays.
  void munmap() noexcept;

  /// Start of the mapping, null when nothing is mapped.
  void* getPointer() const noexcept { return _address; }

  /// Mapped bytes, 0 when nothing is mapped.
  std::size_t size() const noexcept { return _length; }

 private:
  int _fd = -1;
  void* _address = nullptr;
  std::size_t _length = 0;
};

}  // namespace qel
