#include "platform/md5.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace qel {
namespace {

// RFC 1321, section 3.4: entry i is the integer part of 2^32 * |sin(i + 1)|, i + 1 in radians.
constexpr std::array<std::uint32_t, 64> kSine = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

// RFC 1321, section 3.4: left rotations of the four rounds.
constexpr std::array<std::array<int, 4>, 4> kRotation = {
    {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}}};

inline std::uint32_t loadLittle(const std::uint8_t* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

template <int Round>
inline std::uint32_t mix(std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  if constexpr (Round == 0) return d ^ (b & (c ^ d));
  if constexpr (Round == 1) return c ^ (d & (b ^ c));
  if constexpr (Round == 2) return b ^ c ^ d;
  return c ^ (b | ~d);
}

template <int Round>
inline constexpr int wordOf(int step) {
  if constexpr (Round == 0) return step;
  if constexpr (Round == 1) return (5 * step + 1) & 15;
  if constexpr (Round == 2) return (3 * step + 5) & 15;
  return (7 * step) & 15;
}

template <int Round>
inline void round(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c, std::uint32_t& d,
                  const std::uint32_t* words) {
#pragma GCC unroll 16
  for (int step = 0; step < 16; ++step) {
    const std::uint32_t sum =
        a + mix<Round>(b, c, d) + kSine[16 * Round + step] + words[wordOf<Round>(step)];
    a = d;
    d = c;
    c = b;
    b += std::rotl(sum, kRotation[Round][step & 3]);
  }
}

}  // namespace

ZU_MD5::ZU_MD5() noexcept : _state{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476} {}

void ZU_MD5::block(const std::uint8_t* bytes) noexcept {
  std::uint32_t words[16];
  for (int i = 0; i < 16; ++i) words[i] = loadLittle(bytes + 4 * i);
  auto [a, b, c, d] = _state;
  round<0>(a, b, c, d, words);
  round<1>(a, b, c, d, words);
  round<2>(a, b, c, d, words);
  round<3>(a, b, c, d, words);
  _state[0] += a;
  _state[1] += b;
  _state[2] += c;
  _state[3] += d;
}

void ZU_MD5::update(const void* data, std::size_t size) noexcept {
  if (size == 0) return;
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  const std::size_t held = _size % 64;
  _size += size;
  if (held != 0) {
    const std::size_t taken = std::min(size, 64 - held);
    std::memcpy(_pending.data() + held, bytes, taken);
    bytes += taken;
    size -= taken;
    if (held + taken < 64) return;
    block(_pending.data());
  }
  for (; size >= 64; bytes += 64, size -= 64) block(bytes);
  if (size != 0) std::memcpy(_pending.data(), bytes, size);
}

std::array<std::uint8_t, 16> ZU_MD5::finish() noexcept {
  const std::uint64_t bits = _size * 8;
  static constexpr std::uint8_t padding[64] = {0x80};
  const std::size_t held = _size % 64;
  update(padding, held < 56 ? 56 - held : 120 - held);
  std::uint8_t length[8];
  for (int i = 0; i < 8; ++i) length[i] = static_cast<std::uint8_t>(bits >> (8 * i));
  update(length, sizeof length);
  std::array<std::uint8_t, 16> digest;
  for (int i = 0; i < 16; ++i)
    digest[i] = static_cast<std::uint8_t>(_state[i / 4] >> (8 * (i % 4)));
  return digest;
}

std::string ZU_MD5::finishHex() {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(32);
  for (const std::uint8_t byte : finish()) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::string ZU_MD5::md5str(std::string_view bytes) {
  ZU_MD5 digest;
  digest.update(bytes.data(), bytes.size());
  return digest.finishHex();
}

}  // namespace qel
