#pragma once

#include <cstdint>
#include <string>

#include "include/lookup_types.h"
#include "records/records.h"

namespace tolvar::tools {

/// What became of one address that was asked for.
struct Answer {
  enum class Kind { Found, NotFound, NotAnAddress };

  std::string text;  ///< as it was asked for
  Kind kind = Kind::NotAnAddress;
  std::uint32_t ip = 0;  ///< host order; unless NotAnAddress
  ravel::IPInfo ids;     ///< when Found
  IPHumanMessage names;  ///< when Found
  std::string problem;   ///< not empty: all there is to say; `text` is then empty
};

/// One readable line without a line end: the address, the place from the country inwards, then
/// what else is known, or why there is no answer. Control characters in names are shown as '?'.
std::string formatLine(const Answer& answer);

/// One JSON object without a line end.
std::string formatJson(const Answer& answer);

}  // namespace tolvar::tools
