#include "tools/shared/host_port.h"

#include <arpa/inet.h>

#include <filesystem>
#include <limits>
#include <string_view>

#include "service/address_text.h"

namespace tolvar::tools {
namespace {

constexpr std::string_view kUnixPrefix = "unix:";

/// No host has these in its name: what has them is a path, a URL or another list of parts.
constexpr const char* kForbidden = ":/[]@,; \t\r\n";

}  // namespace

std::optional<HostPort> parseHostPort(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  HostPort parts;
  parts.host = text.substr(0, colon);
  const bool isBracketed = parts.host.starts_with('[') && parts.host.ends_with(']');
  if (isBracketed) parts.host = parts.host.substr(1, parts.host.size() - 2);
  in6_addr six{};
  parts.isSix = inet_pton(AF_INET6, parts.host.c_str(), &six) == 1;
  if (isBracketed != parts.isSix || parts.host.empty()) return std::nullopt;
  if (!parts.isSix && parts.host.find_first_of(kForbidden) != std::string::npos)
    return std::nullopt;
  const auto port = service::parseNumber(std::string_view(text).substr(colon + 1),
                                         std::numeric_limits<std::uint16_t>::max());
  if (!port) return std::nullopt;
  parts.port = static_cast<std::uint16_t>(*port);
  return parts;
}

bool isUnixSocket(const std::string& text) {
  return text.starts_with(kUnixPrefix) && text.size() > kUnixPrefix.size();
}

std::string withAbsolutePath(const std::string& text) {
  if (!isUnixSocket(text)) return text;
  const std::filesystem::path path(text.substr(kUnixPrefix.size()));
  return std::string(kUnixPrefix) + std::filesystem::absolute(path).string();
}

}  // namespace tolvar::tools
