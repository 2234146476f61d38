#include "service/content_digest.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/md5.h"

namespace tolvar::service {
namespace {

constexpr std::size_t kImageSize = 36;
constexpr std::size_t kImagesAtOnce = 256;

template <class T>
std::uint8_t* putLittleEndian(std::uint8_t* out, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) *out++ = static_cast<std::uint8_t>(value >> (8 * i));
  return out;
}

std::uint8_t* putImage(std::uint8_t* out, const ravel::IPProperty& range) {
  for (const std::uint32_t value : {range.startIP, range.endIP, range.extend, range.oper,
                                    range.nettype, range.apn, range.flable}) {
    out = putLittleEndian(out, value);
  }
  return putLittleEndian(out, static_cast<std::uint64_t>(range.place));
}

}  // namespace

std::string contentDigest(std::span<const ravel::IPProperty> ranges) {
  qel::ZU_MD5 md5;
  std::array<std::uint8_t, kImageSize * kImagesAtOnce> buffer;
  std::uint8_t* out = buffer.data();
  for (const ravel::IPProperty& range : ranges) {
    out = putImage(out, range);
    if (out == buffer.data() + buffer.size()) {
      md5.update(buffer.data(), buffer.size());
      out = buffer.data();
    }
  }
  md5.update(buffer.data(), static_cast<std::size_t>(out - buffer.data()));
  return md5.finishHex();
}

}  // namespace tolvar::service
