#pragma once

#include <cstdint>
#include <string_view>

/// Conversions between address text and number.
class Toolkit {
 public:
  /// Dotted-quad text to the IPv4 address as a number in host order ("1.2.3.4" is 0x01020304).
  /// Strict: exactly four decimal parts of 0 to 255, no leading zeros, no blanks, no shorthand.
  /// Anything else yields 0, as "0.0.0.0" does; `parseIPv4` tells the two apart.
  /// Allocates nothing; may be called from any thread.
  static std::uint32_t s2ipD(std::string_view text) noexcept;

  /// The same, answering false and leaving `*ip` untouched when `text` is not a strict dotted quad.
  static bool parseIPv4(std::string_view text, std::uint32_t* ip) noexcept;
};
