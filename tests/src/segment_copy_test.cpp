#include "src/segment_copy.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <vector>

namespace {

/// Fresh memory of the system, zeros, of which nothing is there until it is touched.
class FreshMemory {
 public:
  explicit FreshMemory(std::size_t size)
      : _size(size),
        _bytes(static_cast<unsigned char*>(
            ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    if (_bytes == MAP_FAILED) throw std::bad_alloc();
    ::madvise(_bytes, size, MADV_NOHUGEPAGE);
  }
  ~FreshMemory() { ::munmap(_bytes, _size); }
  FreshMemory(const FreshMemory&) = delete;
  FreshMemory& operator=(const FreshMemory&) = delete;

  unsigned char* bytes() { return _bytes; }

  std::size_t bytesThere() {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    std::vector<unsigned char> pages((_size + page - 1) / page);
    if (::mincore(_bytes, _size, pages.data()) != 0) throw std::bad_alloc();
    const auto there = [](unsigned char state) { return (state & 1) != 0; };
    return page * static_cast<std::size_t>(std::count_if(pages.begin(), pages.end(), there));
  }

 private:
  std::size_t _size;
  unsigned char* _bytes;
};

TEST(CopyToNewSegment, CopiesEveryByteAndTakesMemoryForWhatIsNotZeroOnly) {
  constexpr std::size_t kSize = std::size_t{9} << 20;  // two threads copy it
  for (const std::size_t offset : {std::size_t{0}, std::size_t{16}}) {
    std::vector<unsigned char> from(kSize - offset);
    for (const std::size_t at : {std::size_t{5}, std::size_t{4095}, std::size_t{4096} * 300,
                                 from.size() / 2 - 1, from.size() / 2, from.size() - 1})
      from[at] = static_cast<unsigned char>(at % 255 + 1);
    std::fill_n(from.begin() + 4096 * 1500, 4096 * 10, 0xEE);
    FreshMemory to(kSize);
    tolvar::copyToNewSegment(to.bytes() + offset, from.data(), from.size());
    EXPECT_LT(to.bytesThere(), kSize / 4);
    EXPECT_GT(to.bytesThere(), 4096u * 10);
    EXPECT_TRUE(std::equal(from.begin(), from.end(), to.bytes() + offset));
  }
}

TEST(CopyToNewSegment, OfAnySize) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4095},
                                 std::size_t{4096}, std::size_t{4097}, std::size_t{12288}}) {
    for (const bool zeros : {true, false}) {
      std::vector<unsigned char> from(size);
      if (!zeros && size != 0) from.back() = 7;
      std::vector<unsigned char> to(size + 1);
      to.back() = 0xAA;
      tolvar::copyToNewSegment(to.data(), from.data(), size);
      EXPECT_TRUE(std::equal(from.begin(), from.end(), to.begin()));
      EXPECT_EQ(to.back(), 0xAA);
    }
  }
}

TEST(CopyToSegment, CopiesEveryByteAndNoOther) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, (std::size_t{8} << 20) - 1,
                                 std::size_t{8} << 20, (std::size_t{9} << 20) + 3}) {
    std::vector<unsigned char> from(size);
    for (std::size_t i = 0; i < size; ++i) from[i] = static_cast<unsigned char>(i * 31 + i / 251);
    std::vector<unsigned char> to(size + 16, 0xAA);
    tolvar::copyToSegment(to.data() + 8, from.data(), size);
    EXPECT_TRUE(std::equal(from.begin(), from.end(), to.begin() + 8));
    EXPECT_EQ(std::vector<unsigned char>(to.begin(), to.begin() + 8),
              std::vector<unsigned char>(8, 0xAA));
    EXPECT_EQ(std::vector<unsigned char>(to.end() - 8, to.end()),
              std::vector<unsigned char>(8, 0xAA));
  }
}

}  // namespace
