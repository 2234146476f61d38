#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "records/records.h"
#include "service/lookup_service.h"

namespace tolvar_test {

/// Every field of a range, for comparisons and failure texts.
std::string describe(const ravel::IPProperty& range);
std::vector<std::string> describe(const std::vector<ravel::IPProperty>& ranges);

/// `count` ascending, disjoint ranges whose fields follow from their index.
std::vector<ravel::IPProperty> makeRanges(std::size_t count);

/// Two entries of each of the eight code types.
std::vector<ravel::CodeInfo> makeCodes();

/// A service that serves `count` ranges and `makeCodes`.
std::shared_ptr<tolvar::service::LookupService> makeService(std::size_t count);

/// Any values in all fields; cursors increase strictly and the range does not end before it starts.
std::vector<ravel::IPProperty> randomPage(std::mt19937_64& random, std::size_t count);

}  // namespace tolvar_test
