#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qel {

/// MD5 as RFC 1321 defines it. It identifies content; it protects nothing against forgery.
/// An object is used by one thread at a time.
class ZU_MD5 {
 public:
  ZU_MD5() noexcept;

  /// Adds `size` bytes to the message.
  void update(const void* data, std::size_t size) noexcept;

  /// Ends the message and gives its 16-byte digest. The object is then spent.
  std::array<std::uint8_t, 16> finish() noexcept;

  /// Ends the message and gives its digest as 32 lower-case hexadecimal digits.
  std::string finishHex();

  /// Digest of a whole byte string as 32 lower-case hexadecimal digits.
  static std::string md5str(std::string_view bytes);

 private:
  void block(const std::uint8_t* bytes) noexcept;

  std::array<std::uint32_t, 4> _state;
  std::uint64_t _size = 0;
  std::array<std::uint8_t, 64> _pending{};
};

}  // namespace qel
