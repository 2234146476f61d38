#pragma once

#include <cstdint>

namespace tolvar::tools {

/// What a special-purpose IPv4 address (host order) is, as the IANA special-purpose address
/// registry has it; nullptr for an ordinary one. The text lives for ever.
const char* specialAddressKind(std::uint32_t ip) noexcept;

}  // namespace tolvar::tools
