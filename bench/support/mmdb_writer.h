#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "records/records.h"

namespace tolvar_bench {

/// Writes IPv4 ranges as a database in the MaxMind DB format, version 2, for libmaxminddb to read:
/// a binary tree over the address bits with 32-bit records, and one map for each distinct set of
/// attributes:
///   country, province, city, oper (uint32 ids), country_name, province_name, city_name, oper_name
/// A string that was written before is referred to by a pointer, as published databases do.
///
/// `ranges` are in order and do not overlap. `name` answers the name of an id of a code type (0
/// country, 1 province, 2 city, 5 oper). Throws std::runtime_error when the file cannot be written.
void writeMmdb(const std::string& path, std::span<const ravel::IPProperty> ranges,
               const std::function<std::string(int type, std::uint32_t id)>& name);

}  // namespace tolvar_bench
