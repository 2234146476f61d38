#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "service/table_version.h"

namespace tolvar::service {

/// Most of the ranges, or of the addresses, that an import may take away unasked, in percent.
inline constexpr int kMaxLossPercent = 20;

/// How large a table is.
struct TableExtent {
  std::uint64_t ranges = 0;
  std::uint64_t addresses = 0;  ///< that the ranges cover
  std::uint64_t codes = 0;
};

/// How a table that is about to be imported differs from the one that is served.
struct ImportComparison {
  std::optional<TableExtent> served;  ///< nothing: none is served yet
  TableExtent next;
  std::uint64_t rangesAdded = 0;    ///< ranges that no equal one is served for
  std::uint64_t rangesRemoved = 0;  ///< ranges served that no equal one follows
  std::uint64_t codesAdded = 0;     ///< the same of code entries
  std::uint64_t codesRemoved = 0;

  /// Why the import would take away answers that people rely on; empty when it would not.
  std::vector<std::string> objections;

  bool isSafe() const noexcept { return objections.empty(); }

  /// Both tables hold the same.
  bool isSame() const noexcept {
    return served && rangesAdded + rangesRemoved + codesAdded + codesRemoved == 0;
  }
};

/// Compares `next` with `served` (null: nothing is served). It objects when `next` is empty, has
/// more than kMaxLossPercent fewer ranges or addresses, or its ranges use ids that it has no code
/// entries for. Pure; may be called from any thread.
ImportComparison compareImport(const TableVersion* served, const TableVersion& next);

/// Addresses that disjoint ranges cover.
std::uint64_t addressesOf(const std::vector<ravel::IPProperty>& ranges) noexcept;

/// 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

}  // namespace tolvar::service
