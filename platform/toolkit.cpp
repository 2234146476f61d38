#include "platform/toolkit.h"

bool Toolkit::parseIPv4(std::string_view text, std::uint32_t* ip) noexcept {
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

std::uint32_t Toolkit::s2ipD(std::string_view text) noexcept {
  std::uint32_t address = 0;
  parseIPv4(text, &address);
  return address;
}
