#pragma once

#include <string>

#include "records/records.h"

namespace tolvar_test {

/// What a client reports of a name that it answered `count` times.
inline ravel::ReportCount hits(ravel::ReportType type, const std::string& name,
                               std::uint64_t count) {
  ravel::ReportCount report;
  report.info.type = type;
  report.info.name = name;
  report.count = count;
  return report;
}

}  // namespace tolvar_test
