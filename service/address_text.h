#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tolvar::service {

/// A CIDR block in numbers, host order.
struct Network {
  std::uint32_t address = 0;
  std::uint32_t hostMask = 0;  ///< bits that the block leaves open
};

/// Decimal digits without leading zeros, at most `largest`; anything else is nothing.
std::optional<std::uint32_t> parseNumber(std::string_view text, std::uint32_t largest = UINT32_MAX);

/// An IPv4 address in host order: a strict dotted quad, or one decimal integer.
std::optional<std::uint32_t> parseAddress(std::string_view text);

/// "a.b.c.d/n", n 0 to 32; host bits are not looked at.
std::optional<Network> parseNetwork(std::string_view text);

/// Dotted quad of an address in host order.
std::string formatIPv4(std::uint32_t address);

}  // namespace tolvar::service
