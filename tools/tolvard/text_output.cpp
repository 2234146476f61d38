#include "tools/tolvard/text_output.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "service/text_source.h"

namespace tolvar::tools {
namespace {

constexpr std::size_t kShownWarnings = 10;

/// Columns that a text takes on a terminal, a character one.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

}  // namespace

std::string printable(std::string_view text) {
  const bool isText = service::isUtf8(text);
  std::string out;
  std::size_t toEscape = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (toEscape == 0)
      toEscape = isText ? service::controlLength(text.substr(i)) : byte < 0x20 || byte >= 0x7F;
    if (toEscape == 0) {
      out += text[i];
      continue;
    }
    --toEscape;
    std::array<char, 5> escaped{};
    std::snprintf(escaped.data(), escaped.size(), "\\x%02X", byte);
    out += escaped.data();
  }
  return out;
}

std::string alignedTable(const std::vector<std::vector<std::string>>& rows,
                         const std::vector<std::size_t>& rightAligned) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const bool isRight =
          std::find(rightAligned.begin(), rightAligned.end(), i) != rightAligned.end();
      const std::string gap(widths[i] - widthOf(row[i]), ' ');
      line += (i == 0 ? "" : "  ") + (isRight ? gap + row[i] : row[i] + gap);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

void printJson(const nlohmann::json& document) {
  print(document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

void printWarnings(const std::vector<std::string>& warnings) {
  for (std::size_t i = 0; i < warnings.size() && i < kShownWarnings; ++i)
    std::fprintf(stderr, "warning: %s\n", warnings[i].c_str());
  if (warnings.size() > kShownWarnings)
    std::fprintf(stderr, "warning: and %zu more\n", warnings.size() - kShownWarnings);
}

}  // namespace tolvar::tools
