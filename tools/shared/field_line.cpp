#include "tools/shared/field_line.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "service/text_source.h"

namespace tolvar::tools {
namespace {

void appendQuoted(std::string& line, std::string_view value) {
  const bool isText = service::isUtf8(value);
  line += '"';
  std::size_t toEscape = 0;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    const auto byte = static_cast<unsigned char>(c);
    if (toEscape == 0)
      toEscape = isText ? service::controlLength(value.substr(i)) : byte < 0x20 || byte >= 0x7F;
    if (c == '"' || c == '\\') {
      line += '\\';
      line += c;
    } else if (c == '\n') {
      line += "\\n";
      toEscape = 0;
    } else if (toEscape != 0) {
      --toEscape;
      std::array<char, 5> escaped{};
      std::snprintf(escaped.data(), escaped.size(), "\\x%02X", byte);
      line += escaped.data();
    } else {
      line += c;
    }
  }
  line += '"';
}

bool isPlain(std::string_view value) {
  return !value.empty() && std::all_of(value.begin(), value.end(), [](char c) {
    return c > ' ' && c < 0x7F && c != '"' && c != '=' && c != '\\';
  });
}

}  // namespace

std::string utcText(std::time_t now) {
  std::tm parts{};
  gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

std::string utcText(timeval now) {
  std::string text = utcText(now.tv_sec);
  std::array<char, 8> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%03d",
                static_cast<int>(now.tv_usec / 1000 % 1000));
  return text.insert(text.size() - 1, fraction.data());
}

void appendField(std::string& line, std::string_view name, std::string_view value) {
  if (!line.empty()) line += ' ';
  line += name;
  line += '=';
  if (isPlain(value))
    line += value;
  else
    appendQuoted(line, value);
}

}  // namespace tolvar::tools
