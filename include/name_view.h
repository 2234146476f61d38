#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace tolvar {
class TupleNames;
}  // namespace tolvar

/// The nine names of one answer, not copied: each call shows where a name's text lies, and the text
/// is not touched by that. Valid, with the text it shows, as long as the TolvarReader that filled
/// it; one that nobody filled has nine empty names. May be copied, and read from any thread.
class IPNameView {
 public:
  IPNameView() noexcept = default;

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

  static constexpr std::size_t kNames = 9;

  /// Where each name ends in the text, counted in bytes from its beginning, then whether the names
  /// are no one text: if not 0, it begins with the address of nine std::string_view. Sixteen bytes,
  /// because that is what a lookup copies at once.
  struct Ends {
    std::uint8_t of[kNames] = {};
    std::uint8_t apart = 0;
    std::uint8_t padding[6] = {};
  };

  IPNameView(const char* text, const Ends& ends) noexcept : _text(text), _ends(ends) {}

  template <std::size_t kName>
  std::string_view name() const noexcept {
    if (_ends.apart != 0) [[unlikely]] {
      const std::string_view* names;
      std::memcpy(&names, _text, sizeof names);
      return names[kName];
    }
    std::size_t begin = 0;
    if constexpr (kName > 0) begin = _ends.of[kName - 1];
    return {_text + begin, _ends.of[kName] - begin};
  }

  const char* _text = "";
  Ends _ends;
};
