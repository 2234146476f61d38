#pragma once

#include <string>
#include <vector>

#include "records/records.h"

namespace tolvar::tools {

/// Names and values of the six fields, in the record's order, as texts that setConfField reads.
std::vector<std::pair<std::string, std::string>> confFields(const ravel::ClientConf& conf);

/// Sets one field from "name=value". Lists of names are separated by commas, or a JSON array.
/// Throws std::invalid_argument saying what is expected; confVersion cannot be set.
void setConfField(ravel::ClientConf& conf, const std::string& assignment);

}  // namespace tolvar::tools
