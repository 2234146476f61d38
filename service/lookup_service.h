#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "records/records.h"

namespace tolvar::service {

/// What an importer produces: ranges and code entries of one table, cursors not yet given.
struct TableData {
  std::vector<ravel::IPProperty> ranges;
  std::vector<ravel::CodeInfo> codes;
};

/// One immutable version of the table as it is served. Shared by all calls; safe from any thread.
class TableVersion {
 public:
  /// Sorts the ranges in the table's order and numbers them: cursor of range i is
  /// (timesTamp, i + 1). Throws std::invalid_argument when ranges overlap or are reversed.
  TableVersion(TableData data, std::uint32_t timesTamp);

  std::uint32_t timesTamp() const noexcept { return _timesTamp; }

  /// MD5 of the ranges as the client computes it, 32 lower-case hexadecimal digits.
  const std::string& digest() const noexcept { return _digest; }

  const std::vector<ravel::IPProperty>& ranges() const noexcept { return _ranges; }
  const std::vector<ravel::CodeInfo>& codes() const noexcept { return _codes; }

 private:
  std::uint32_t _timesTamp;
  std::vector<ravel::IPProperty> _ranges;
  std::vector<ravel::CodeInfo> _codes;
  std::string _digest;
};

}  // namespace tolvar::service
