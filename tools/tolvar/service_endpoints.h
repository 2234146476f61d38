#pragma once

#include <string>
#include <vector>

namespace tolvar::tools {

/// The addresses in `lists`, which have commas between. Throws CLI::ValidationError naming
/// --service for one that no service can have.
std::vector<std::string> parseEndpoints(const std::vector<std::string>& lists);

}  // namespace tolvar::tools
