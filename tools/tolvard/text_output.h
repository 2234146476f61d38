#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "tools/shared/standard_output.h"

namespace tolvar::tools {

/// `text` for a terminal: control characters and what is no UTF-8 as \xNN.
std::string printable(std::string_view text);

/// Columns as wide as their widest cell, two blanks apart, in rows that end with '\n'; no blanks at
/// line ends. Columns listed in `rightAligned` have their texts at the right.
std::string alignedTable(const std::vector<std::vector<std::string>>& rows,
                         const std::vector<std::size_t>& rightAligned);

/// One JSON document and a line end; bytes that are no UTF-8 become U+FFFD.
void printJson(const nlohmann::json& document);

/// "warning: ..." lines on standard error, the first ten of them.
void printWarnings(const std::vector<std::string>& warnings);

}  // namespace tolvar::tools
