#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/shm_keys.h"

namespace tolvar_test {

/// The segments behind three keys as bytes, so that a test begins hundreds of times with the same
/// image. Uses the operating system's calls only. Pages of zeros take no room.
class ImageCopy {
 public:
  /// Takes what stands behind the keys now; a missing segment is remembered as missing.
  explicit ImageCopy(const ShmKeys& keys);

  /// Removes what stands behind the keys, the semaphore too, and makes it as it was.
  void restore() const;

 private:
  struct Page {
    std::size_t offset;
    std::string bytes;
  };
  struct Segment {
    bool exists = false;
    std::size_t size = 0;
    std::vector<Page> pages;
  };

  const ShmKeys& _keys;
  std::array<Segment, 3> _segments;
};

}  // namespace tolvar_test
