#include "service/content_digest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "platform/md5.h"

namespace tolvar::service {
namespace {

/// The image as clients lay it out in memory.
struct __attribute__((packed)) Image {
  std::uint32_t startIP, endIP, extend, oper, nettype, apn, flable;
  std::uint64_t place;
};
static_assert(sizeof(Image) == 36);

std::string plainDigest(const std::vector<ravel::IPProperty>& ranges) {
  std::string bytes;
  for (const ravel::IPProperty& r : ranges) {
    const Image image{r.startIP, r.endIP, r.extend, r.oper,
                      r.nettype, r.apn,   r.flable, static_cast<std::uint64_t>(r.place)};
    char raw[sizeof image];
    std::memcpy(raw, &image, sizeof image);
    bytes.append(raw, sizeof raw);
  }
  return qel::ZU_MD5::md5str(bytes);
}

ravel::IPProperty exampleRange() {
  ravel::IPProperty range;
  range.startIP = 0x01020300;
  range.endIP = 0x010203FF;
  range.extend = 1;
  range.oper = 2;
  range.nettype = 3;
  range.apn = 0x1FF;
  range.flable = 15;
  range.place = 86110105001;
  return range;
}

TEST(ContentDigest, OfNoRangesIsThatOfNoBytes) {
  EXPECT_EQ(contentDigest({}), "d41d8cd98f00b204e9800998ecf8427e");
}

// The 36 bytes 00030201 ff030201 01000000 02000000 03000000 ff010000 0f000000 a9ed8f0c14000000
// packed by hand and put through md5sum.
TEST(ContentDigest, OfOneRangeHasAKnownValue) {
  EXPECT_EQ(contentDigest(std::vector{exampleRange()}), "a24818899c563c8390c705f3e796e10c");
}

TEST(ContentDigest, LeavesTheCursorOut) {
  ravel::IPProperty numbered = exampleRange();
  numbered.timesTamp = 1700000000;
  numbered.sequence = 7;
  EXPECT_EQ(contentDigest(std::vector{numbered}), contentDigest(std::vector{exampleRange()}));
}

TEST(ContentDigest, EqualsAPlainImplementationForAnyLength) {
  std::mt19937_64 random(20240501);
  for (const std::size_t size : {1u, 2u, 255u, 256u, 257u, 511u, 512u, 513u, 3000u}) {
    std::vector<ravel::IPProperty> ranges(size);
    for (ravel::IPProperty& range : ranges) {
      range.startIP = static_cast<std::uint32_t>(random());
      range.endIP = static_cast<std::uint32_t>(random());
      range.place = static_cast<std::int64_t>(random());
      range.apn = static_cast<std::uint32_t>(random());
      range.flable = static_cast<std::uint32_t>(random());
    }
    EXPECT_EQ(contentDigest(ranges), plainDigest(ranges)) << size;
  }
}

}  // namespace
}  // namespace tolvar::service
