#include "tools/tolvar/key_list.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <sstream>
#include <vector>

namespace tolvar::tools {
namespace {

/// Keys are signed, but `ipcs -m` shows their bits.
key_t parseKey(const std::string& text) {
  std::size_t used = 0;
  std::int64_t number = 0;
  try {
    number = std::stoll(text, &used, 0);
  } catch (const std::logic_error&) {
    used = 0;
  }
  if (used == 0 || used != text.size() || number < std::numeric_limits<std::int32_t>::min() ||
      number > std::numeric_limits<std::uint32_t>::max())
    throw CLI::ValidationError("--keys", "\"" + text + "\" is not a shared-memory key");
  return static_cast<key_t>(static_cast<std::uint32_t>(number));
}

}  // namespace

ImageKeys parseKeys(const std::string& text) {
  std::vector<key_t> keys;
  std::istringstream in(text);
  std::string part;
  while (std::getline(in, part, ',')) keys.push_back(parseKey(part));
  if (keys.size() != 3) throw CLI::ValidationError("--keys", "expected three keys, such as 1,2,3");
  return {keys[0], keys[1], keys[2]};
}

std::string formatKeys(const ImageKeys& keys) {
  return std::to_string(keys[0]) + "," + std::to_string(keys[1]) + "," + std::to_string(keys[2]);
}

std::string formatKey(key_t key) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08x", static_cast<unsigned>(key));
  return std::to_string(key) + " (" + hex + ")";
}

}  // namespace tolvar::tools
