#include "platform/toolkit.h"

// TOLVAR_PORTABLE_TOOLKIT keeps to the portable path where there is a faster one; for its tests.
#if defined(__SSE2__) && !defined(TOLVAR_PORTABLE_TOOLKIT)
#define TOLVAR_TOOLKIT_SSE2 1
#include <emmintrin.h>

#include <bit>
#include <cstddef>
#include <cstring>
#endif

namespace {

bool parsePartByPart(std::string_view text, std::uint32_t* ip) noexcept {
  std::uint32_t address = 0;
  const char* at = text.data();
  const char* const end = at + text.size();
  for (int part = 0; part < 4; ++part) {
    if (part != 0 && (at == end || *at++ != '.')) return false;
    if (at == end || *at < '0' || *at > '9') return false;
    std::uint32_t value = static_cast<std::uint32_t>(*at++ - '0');
    // A part that begins with 0 is 0 itself; otherwise up to two more digits follow.
    for (int more = 0; value != 0 && more < 2 && at != end && *at >= '0' && *at <= '9'; ++more)
      value = value * 10 + static_cast<std::uint32_t>(*at++ - '0');
    if (value > 255) return false;
    address = address << 8 | value;
  }
  if (at != end) return false;
  *ip = address;
  return true;
}

#ifdef TOLVAR_TOOLKIT_SSE2

constexpr std::size_t kShortest = 8;
constexpr std::size_t kLongest = 15;

template <class Number>
Number load(const char* bytes) noexcept {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

/// A bit for each byte.
std::uint32_t bitsOf(__m128i bytes) noexcept {
  return static_cast<std::uint32_t>(_mm_movemask_epi8(bytes));
}

/// What the four characters before the end of a part count, when `first` and `second` are the
/// numbers of digits (1 to 3) of two parts.
__m128i weightsOf(std::uint32_t first, std::uint32_t second) noexcept {
  alignas(8) static constexpr std::int16_t kWeights[4][4] = {
      {}, {0, 0, 0, 1}, {0, 0, 10, 1}, {0, 100, 10, 1}};
  return _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(kWeights[first])),
                            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kWeights[second])));
}

/// For texts of kShortest to kLongest bytes, all parts at once and without a branch that depends on
/// how long they are: that changes from address to address, so a processor would guess wrong time
/// and again, and each wrong guess costs as much as all of this.
bool parseAtOnce(std::string_view text, std::uint32_t* ip) noexcept {
  const std::size_t size = text.size();
  const auto head = load<std::uint64_t>(text.data());
  // Shifted twice, because once by 64 has no meaning.
  const auto tail =
      load<std::uint64_t>(text.data() + size - sizeof head) >> 8 * (kLongest - size) >> 8;
  const __m128i letters =
      _mm_set_epi64x(static_cast<std::int64_t>(tail), static_cast<std::int64_t>(head));
  const __m128i values = _mm_sub_epi8(letters, _mm_set1_epi8('0'));
  const __m128i none = _mm_setzero_si128();

  // Of all these, bit i is about letter i.
  const std::uint32_t digits =
      bitsOf(_mm_cmpeq_epi8(_mm_min_epu8(values, _mm_set1_epi8(9)), values));
  const std::uint32_t zeros = bitsOf(_mm_cmpeq_epi8(values, none));
  const std::uint32_t dots = bitsOf(_mm_cmpeq_epi8(letters, _mm_set1_epi8('.')));
  const std::uint32_t stop = 1u << size;
  const std::uint32_t starts = dots << 1 | 1u;
  // The ends of all four parts, of the last three, two, and of the last.
  const std::uint32_t ends = dots | stop;
  const std::uint32_t ends3 = ends & (ends - 1);
  const std::uint32_t ends2 = ends3 & (ends3 - 1);
  const std::uint32_t ends1 = ends2 & (ends2 - 1);

  const std::uint32_t strangeLetters = (digits | dots) ^ (stop - 1);
  const std::uint32_t emptyParts = ends & starts;
  const std::uint32_t longParts = digits & digits >> 1 & digits >> 2 & digits >> 3;
  const std::uint32_t leadingZeros = zeros & starts & digits >> 1;
  const std::uint32_t otherThanFourParts = ends1 ^ stop;
  if ((strangeLetters | emptyParts | longParts | leadingZeros | otherThanFourParts) != 0)
    return false;

  const auto end1 = static_cast<std::uint32_t>(std::countr_zero(ends));
  const auto end2 = static_cast<std::uint32_t>(std::countr_zero(ends3));
  const auto end3 = static_cast<std::uint32_t>(std::countr_zero(ends2));
  const auto end4 = static_cast<std::uint32_t>(size);
  // One byte up, so that there are four before the end of every part but the first.
  alignas(16) char shifted[16];
  _mm_store_si128(reinterpret_cast<__m128i*>(shifted), _mm_slli_si128(values, 1));
  const auto before = [&shifted](std::uint32_t end) {
    return _mm_cvtsi32_si128(load<std::int32_t>(shifted + end - 3));
  };
  const auto first = static_cast<std::uint32_t>(_mm_cvtsi128_si32(values)) << (32 - 8 * end1);
  const __m128i parts12 =
      _mm_unpacklo_epi32(_mm_cvtsi32_si128(static_cast<std::int32_t>(first)), before(end2));
  const __m128i parts34 = _mm_unpacklo_epi32(before(end3), before(end4));

  // Each part as two sums of two products.
  const __m128 sums12 = _mm_castsi128_ps(
      _mm_madd_epi16(_mm_unpacklo_epi8(parts12, none), weightsOf(end1, end2 - end1 - 1)));
  const __m128 sums34 = _mm_castsi128_ps(_mm_madd_epi16(
      _mm_unpacklo_epi8(parts34, none), weightsOf(end3 - end2 - 1, end4 - end3 - 1)));
  const __m128i parts =
      _mm_add_epi32(_mm_castps_si128(_mm_shuffle_ps(sums12, sums34, _MM_SHUFFLE(2, 0, 2, 0))),
                    _mm_castps_si128(_mm_shuffle_ps(sums12, sums34, _MM_SHUFFLE(3, 1, 3, 1))));
  if (bitsOf(_mm_cmpgt_epi32(parts, _mm_set1_epi32(255))) != 0) return false;
  const __m128i words = _mm_packs_epi32(parts, parts);
  *ip = __builtin_bswap32(
      static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_packus_epi16(words, words))));
  return true;
}

#endif

}  // namespace

bool Toolkit::parseIPv4(std::string_view text, std::uint32_t* ip) noexcept {
#ifdef TOLVAR_TOOLKIT_SSE2
  if (text.size() >= kShortest && text.size() <= kLongest) [[likely]]
    return parseAtOnce(text, ip);
#endif
  return parsePartByPart(text, ip);
}

std::uint32_t Toolkit::s2ipD(std::string_view text) noexcept {
  std::uint32_t address = 0;
  parseIPv4(text, &address);
  return address;
}
