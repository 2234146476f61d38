#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tolvar::wire {

/// Reads a packed field of varints (base 128, least significant group first) a run of values at a
/// time, without a branch on the length of each.
///
/// A window of 64 bytes becomes a mask of the bytes that end a value; the values are cut out along
/// the mask's bits, and what follows them and the gaps that the top bits left are taken out of them
/// afterwards, for many values at once. Values too long for this are read byte by byte. Reads up to
/// kReadAhead bytes behind the field, which must be readable (see PageBytes); never takes a value
/// from there.
class PackedColumn {
 public:
  static constexpr std::size_t kReadAhead = 64;

  /// A field that was left out.
  PackedColumn() = default;
  /// `bytes` outlive the column.
  explicit PackedColumn(std::span<const std::uint8_t> bytes) noexcept
      : _value(bytes.data()), _end(bytes.data() + bytes.size()) {}

  bool absent() const noexcept { return _value == nullptr; }

  /// True when every byte belonged to a value that was taken.
  bool atEnd() const noexcept { return _value == _end; }

  /// True when each of the next `count` values is one byte, `value` (below 128).
  bool startsWithRun(std::size_t count, std::uint8_t value) const noexcept {
    if (count > left() || (count != 0 && *_value != value)) return false;
    return count < 2 || std::memcmp(_value, _value + 1, count - 1) == 0;
  }

  /// Leaves out the next `count` values, which are one byte each.
  void skipRun(std::size_t count) noexcept { _value += count; }

  /// Takes the next `count` values, the low bits where T is narrower. T has 32 or 64 bits. False,
  /// with `out` and the column unspecified, when fewer are left or one has more than 64 bits.
  template <class T>
  bool take(std::size_t count, T* out) noexcept {
    static_assert(sizeof(T) == 4 || sizeof(T) == 8);
    if (count <= left() && startsWithSingleBytes(count)) {
      for (std::size_t i = 0; i < count; ++i) out[i] = _value[i];
      _value += count;
      return true;
    }
    return takeShort(count, out) || takeAny(count, out);
  }

 private:
  static constexpr std::size_t kWindow = 64;
  static constexpr std::uint64_t kTopBits = 0x8080808080808080;

  /// The next bytes, the first one lowest.
  template <class Word>
  static Word load(const std::uint8_t* from) noexcept {
    Word word;
    std::memcpy(&word, from, sizeof word);
    if constexpr (std::endian::native == std::endian::big)
      word =
          static_cast<Word>(sizeof(Word) == 4 ? __builtin_bswap32(static_cast<std::uint32_t>(word))
                                              : __builtin_bswap64(word));
    return word;
  }

  /// Bit i is set when byte i of the window has its top bit clear: it ends a value.
  static std::uint64_t endsOf(const std::uint8_t* window) noexcept {
    std::uint64_t more = 0;
#if defined(__SSE2__)
    for (std::size_t i = 0; i < kWindow / 16; ++i) {
      const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(window + 16 * i));
      more |= std::uint64_t{static_cast<std::uint32_t>(_mm_movemask_epi8(bytes))} << 16 * i;
    }
#else
    // The product moves bit 8i to bit 56 + i; no two of its terms meet, so that nothing carries.
    for (std::size_t i = 0; i < kWindow / 8; ++i)
      more |= ((load<std::uint64_t>(window + 8 * i) & kTopBits) >> 7) * 0x0102040810204080 >>
              56 << 8 * i;
#endif
    return ~more;
  }

  std::size_t left() const noexcept { return static_cast<std::size_t>(_end - _value); }

  /// `count` bytes are left.
  bool startsWithSingleBytes(std::size_t count) const noexcept {
    std::size_t i = 0;
    for (; count - i >= kWindow; i += kWindow)
      if (~endsOf(_value + i) != 0) return false;
    const std::uint64_t rest = (std::uint64_t{1} << (count - i)) - 1;
    return (~endsOf(_value + i) & rest) == 0;
  }

  /// As `take`, for values of at most as many bytes as T has. False, with the column as it was,
  /// when there are others.
  template <class T>
  bool takeShort(std::size_t count, T* out) noexcept {
    T* to = out;
    T* const last = out + count;
    const std::uint8_t* value = _value;
    for (const std::uint8_t* window = _value; to != last; window += kWindow) {
      if (window >= _end) return false;
      std::uint64_t ends = endsOf(window);
      std::uint64_t more = ~ends;
      const auto inside = static_cast<std::size_t>(_end - window);
      if (inside < kWindow) {
        ends &= (std::uint64_t{1} << inside) - 1;
        more &= (std::uint64_t{1} << inside) - 1;
      }
      if (hasRun<sizeof(T)>(more)) return false;
      if (ends == 0) continue;
      // A value that began before this window is not seen as one run.
      if (window + std::countr_zero(ends) - value >= static_cast<std::ptrdiff_t>(sizeof(T)))
        return false;
      ends = lowestOf(ends, static_cast<std::size_t>(last - to));
      const std::uint8_t* const behind = window + 1;
      const auto cut = [&]() noexcept {
        *to++ = load<T>(value);  // and what follows it: closeGaps cuts that off
        value = behind + static_cast<unsigned>(std::countr_zero(ends));
        ends &= ends - 1;
      };
      unsigned values = countOf(ends);
      for (; values >= 4; values -= 4) {
        cut();
        cut();
        cut();
        cut();
      }
      for (; values != 0; --values) cut();
    }
    _value = value;
    closeGaps(count, out);
    return true;
  }

  /// True when `length` bits in a row are set; 4 or 8.
  template <std::size_t length>
  static bool hasRun(std::uint64_t bits) noexcept {
    bits &= bits >> 1;
    bits &= bits >> 2;
    if constexpr (length == 8) bits &= bits >> 4;
    return bits != 0;
  }

  /// Number of bits that are set; where processors cannot be taken to count them, std::popcount is
  /// a call.
  static unsigned countOf(std::uint64_t bits) noexcept {
    bits -= bits >> 1 & 0x5555555555555555;
    bits = (bits & 0x3333333333333333) + (bits >> 2 & 0x3333333333333333);
    bits = (bits + (bits >> 4)) & 0x0f0f0f0f0f0f0f0f;
    return static_cast<unsigned>(bits * 0x0101010101010101 >> 56);
  }

  /// The lowest `count` of the bits that are set.
  static std::uint64_t lowestOf(std::uint64_t bits, std::size_t count) noexcept {
    if (count >= kWindow || count >= countOf(bits)) return bits;
    std::uint64_t others = bits;
    for (std::size_t i = 0; i < count; ++i) others &= others - 1;
    return bits ^ others;
  }

  /// Cuts every value off behind its lowest byte without a top bit, and joins its groups of 7 bits:
  /// in pairs, then fours, then all eight.
  template <class T>
  static void closeGaps(std::size_t count, T* values) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
      if constexpr (sizeof(T) == 4) {
        auto x = static_cast<std::uint32_t>(values[i]);
        const std::uint32_t ends = ~x & static_cast<std::uint32_t>(kTopBits);
        x &= ends ^ (ends - 1);
        x = (x & 0x007f007f) | (x & 0x7f007f00) >> 1;
        values[i] = static_cast<T>((x & 0x00003fff) | (x & 0x3fff0000) >> 2);
      } else {
        auto x = static_cast<std::uint64_t>(values[i]);
        const std::uint64_t ends = ~x & kTopBits;
        x &= ends ^ (ends - 1);
        x = (x & 0x007f007f007f007f) | (x & 0x7f007f007f007f00) >> 1;
        x = (x & 0x00003fff00003fff) | (x & 0x3fff00003fff0000) >> 2;
        values[i] = static_cast<T>((x & 0x000000000fffffff) | (x & 0x0fffffff00000000) >> 4);
      }
    }
  }

  template <class T>
  bool takeAny(std::size_t count, T* out) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
      std::uint64_t number = 0;
      if (!takeOne(&number)) return false;
      out[i] = static_cast<T>(number);
    }
    return true;
  }

  bool takeOne(std::uint64_t* number) noexcept {
    for (unsigned shift = 0; shift < 70 && _value != _end; shift += 7) {
      const std::uint8_t byte = *_value++;
      if (shift == 63 && byte > 1) return false;
      *number |= std::uint64_t{byte & 0x7fu} << shift;
      if (byte < 0x80) return true;
    }
    return false;
  }

  const std::uint8_t* _value = nullptr;  ///< where the next value begins
  const std::uint8_t* _end = nullptr;
};

}  // namespace tolvar::wire
