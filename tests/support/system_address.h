#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <string>

namespace tolvar_test {

/// What the operating system makes of an address text (host order): false, with `*ip` as it was,
/// when it is none. A text with a zero byte is no address to it.
inline bool systemParses(const std::string& text, std::uint32_t* ip) {
  in_addr address{};
  if (text.find('\0') != std::string::npos || inet_pton(AF_INET, text.c_str(), &address) != 1)
    return false;
  *ip = ntohl(address.s_addr);
  return true;
}

}  // namespace tolvar_test
