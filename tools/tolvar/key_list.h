#pragma once

#include <sys/types.h>

#include <array>
#include <string>

namespace tolvar::tools {

/// The three shared-memory keys of an image: data segment 0, data segment 1, size record.
using ImageKeys = std::array<key_t, 3>;

/// The keys in "1,2,3", decimal or 0x and hexadecimal. Throws CLI::ValidationError naming --keys.
ImageKeys parseKeys(const std::string& text);

/// "1,2,3".
std::string formatKeys(const ImageKeys& keys);

/// "101 (0x00000065)", as `--keys` takes it and as `ipcs -m` shows it.
std::string formatKey(key_t key);

}  // namespace tolvar::tools
