#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace tolvar::wire {

/// Reads a packed field of varints (base 128, least significant group first) a run of values at a
/// time, without a branch on the length of each.
///
/// A window of 64 bytes becomes a mask of the bytes that end a value; the values are then cut out
/// along the mask's bits. Reads up to kReadAhead bytes behind the field, which must be readable
/// (see PageBytes); never takes a value from there.
class PackedColumn {
 public:
  static constexpr std::size_t kReadAhead = 64;

  /// A field that was left out.
  PackedColumn() = default;
  /// `bytes` outlive the column.
  explicit PackedColumn(std::span<const std::uint8_t> bytes) noexcept
      : _value(bytes.data()), _window(bytes.data()), _end(bytes.data() + bytes.size()) {
    if (!bytes.empty()) loadWindow();
  }

  bool absent() const noexcept { return _value == nullptr; }

  /// True when every byte belonged to a value that was taken.
  bool atEnd() const noexcept { return _value == _end; }

  /// Takes the next `count` values, the low bits where T is narrower. False, with `out` and the
  /// column unspecified, when fewer are left or one has more than 64 bits.
  template <class T>
  bool take(std::size_t count, T* out) noexcept {
    T* const last = out + count;
    while (out != last) {
      if (_ends == 0 && !nextWindow()) return false;
      if (_ends == kAllEnds && last - out >= std::ptrdiff_t{kWindow} && _value == _window) {
        for (std::size_t i = 0; i < kWindow; ++i) out[i] = _window[i];
        _ends = 0;
        _value += kWindow;
        out += kWindow;
      } else if (!takeFromWindow(out, last)) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::size_t kWindow = 64;
  static constexpr std::uint64_t kAllEnds = ~std::uint64_t{0};
  static constexpr std::uint64_t kTopBits = 0x8080808080808080;
  /// The bits of a value of so many bytes.
  static constexpr std::uint64_t kValueBits[] = {0,
                                                 0x7f,
                                                 0x7f7f,
                                                 0x7f7f7f,
                                                 0x7f7f7f7f,
                                                 0x7f7f7f7f7f,
                                                 0x7f7f7f7f7f7f,
                                                 0x7f7f7f7f7f7f7f,
                                                 0x7f7f7f7f7f7f7f7f};

  static std::uint64_t load(const std::uint8_t* from) noexcept {
    std::uint64_t word;
    std::memcpy(&word, from, sizeof word);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
    return word;
  }

  /// Bit i is set when byte i of the 8 has its top bit clear: it ends a value.
  static std::uint64_t endsOf(std::uint64_t word) noexcept {
    // Moves bit 8i to bit 56 + i; no two products meet, so that nothing carries.
    return ((~word & kTopBits) >> 7) * 0x0102040810204080 >> 56;
  }

  void loadWindow() noexcept {
    _ends = 0;
    for (std::size_t i = 0; i < kWindow / 8; ++i) _ends |= endsOf(load(_window + 8 * i)) << 8 * i;
    const auto left = static_cast<std::size_t>(_end - _window);
    if (left < kWindow) _ends &= (std::uint64_t{1} << left) - 1;
  }

  bool nextWindow() noexcept {
    while (_ends == 0) {
      if (static_cast<std::size_t>(_end - _window) <= kWindow) return false;
      _window += kWindow;
      loadWindow();
    }
    return true;
  }

  /// Takes what ends in the window, up to `last`, and moves `out` behind it.
  template <class T>
  bool takeFromWindow(T*& out, T* last) noexcept {
    // Locals, because for all the compiler knows a store through `to` could change the members.
    const std::uint8_t* const window = _window;
    const std::uint8_t* value = _value;
    std::uint64_t ends = _ends;
    T* to = out;
    for (; ends != 0 && to != last; ++to) {
      const std::uint8_t* const next = window + std::countr_zero(ends) + 1;
      ends &= ends - 1;
      const auto length = static_cast<std::size_t>(next - value);
      std::uint64_t number;
      if (length <= 8) [[likely]]
        number = joined(load(value), length);
      else if (!joinedLong(value, length, &number))
        return false;
      *to = static_cast<T>(number);
      value = next;
    }
    _value = value;
    _ends = ends;
    out = to;
    return true;
  }

  /// The number in the first `length` bytes of `word`, 1 to 8.
  static std::uint64_t joined(std::uint64_t word, std::size_t length) noexcept {
    std::uint64_t x = word & kValueBits[length];
    // Closes the gaps of the top bits: in pairs, then fours, then all eight groups of 7 bits.
    x = (x & 0x007f007f007f007f) | (x & 0x7f007f007f007f00) >> 1;
    x = (x & 0x00003fff00003fff) | (x & 0x3fff00003fff0000) >> 2;
    return (x & 0x000000000fffffff) | (x & 0x0fffffff00000000) >> 4;
  }

  static bool joinedLong(const std::uint8_t* from, std::size_t length,
                         std::uint64_t* number) noexcept {
    if (length > 10 || (length == 10 && from[9] > 1)) return false;
    *number = 0;
    for (std::size_t i = 0; i < length; ++i) *number |= std::uint64_t{from[i] & 0x7fu} << 7 * i;
    return true;
  }

  const std::uint8_t* _value = nullptr;  ///< where the next value begins
  const std::uint8_t* _window = nullptr;
  const std::uint8_t* _end = nullptr;
  std::uint64_t _ends = 0;  ///< of _window's bytes: those that end a value not yet taken
};

}  // namespace tolvar::wire
