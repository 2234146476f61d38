#pragma once

#include <vector>

#include "records/records.h"

namespace tolvar::service {

/// Content of one table before it is numbered for serving: what an importer produces. The cursor
/// fields of the ranges are ignored.
struct TableData {
  std::vector<ravel::IPProperty> ranges;
  std::vector<ravel::CodeInfo> codes;
};

}  // namespace tolvar::service
