#include "service/address_text.h"

#include <charconv>
#include <cstdio>
#include <system_error>

#include "platform/toolkit.h"

namespace tolvar::service {

std::optional<std::uint32_t> parseNumber(std::string_view text, std::uint32_t largest) {
  if (text.empty() || (text.front() == '0' && text.size() > 1)) return std::nullopt;
  std::uint32_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value > largest) return std::nullopt;
  return value;
}

std::optional<std::uint32_t> parseAddress(std::string_view text) {
  if (text.find('.') == std::string_view::npos) return parseNumber(text);
  std::uint32_t address = 0;
  if (!Toolkit::parseIPv4(text, &address)) return std::nullopt;
  return address;
}

std::optional<Network> parseNetwork(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  Network network;
  if (!Toolkit::parseIPv4(text.substr(0, slash), &network.address)) return std::nullopt;
  const auto length = parseNumber(text.substr(slash + 1), 32);
  if (!length) return std::nullopt;
  network.hostMask = static_cast<std::uint32_t>((std::uint64_t{1} << (32 - *length)) - 1);
  return network;
}

std::string formatIPv4(std::uint32_t address) {
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", address >> 24, address >> 16 & 255,
                address >> 8 & 255, address & 255);
  return text;
}

}  // namespace tolvar::service
