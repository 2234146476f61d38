#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace tolvar {
class TupleNames;
}

/// The nine names of one answer, not copied: each call shows where a name's text lies. Costs as
/// much as a pointer until a name is asked for. Valid, with the text it shows, as long as the
/// TolvarReader that filled it; one that nobody filled has nine empty names. May be read from any
/// thread.
class IPNameView {
 public:
  IPNameView() noexcept : _row(kNoNames) {}

  std::string_view country() const noexcept { return name<0>(); }
  std::string_view province() const noexcept { return name<1>(); }
  std::string_view city() const noexcept { return name<2>(); }
  std::string_view district() const noexcept { return name<3>(); }
  std::string_view extend() const noexcept { return name<4>(); }
  std::string_view oper() const noexcept { return name<5>(); }
  std::string_view nettype() const noexcept { return name<6>(); }
  std::string_view apn() const noexcept { return name<7>(); }
  std::string_view flable() const noexcept { return name<8>(); }

 private:
  friend class tolvar::TupleNames;

  /// What a view points at begins with, for each name, the number of text bytes up to its end, in
  /// one byte. Then come 0 and the text, or 1 and, in a whole pointer, the address of nine
  /// std::string_view.
  static constexpr std::size_t kNames = 9;
  static constexpr std::size_t kTextAt = kNames + 1;
  static constexpr char kNoNames[kTextAt] = {};

  explicit IPNameView(const char* row) noexcept : _row(row) {}

  template <std::size_t kName>
  std::string_view name() const noexcept {
    if (_row[kNames] != 0) [[unlikely]] {
      const std::string_view* names;
      std::memcpy(&names, _row + kTextAt, sizeof names);
      return names[kName];
    }
    std::size_t begin = 0;
    if constexpr (kName > 0) begin = static_cast<unsigned char>(_row[kName - 1]);
    return {_row + kTextAt + begin, static_cast<unsigned char>(_row[kName]) - begin};
  }

  const char* _row;
};
