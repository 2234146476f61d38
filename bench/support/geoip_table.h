#pragma once

#include <string>

#include "records/records.h"

namespace tolvar_bench {

/// Where Debian's tor-geoipdb keeps its IPv4 table.
inline constexpr const char* kGeoipPath = "/usr/share/tor/geoip";

/// Reads a table of lines "first,last,CC" (decimal addresses, a two-letter country code; lines that
/// begin with # are comments) into ranges in order. The country id of "AA" is 1, of "AB" 2, of "BA"
/// 37 and so on over A-Z and 0-9; "??" and other signs give ids too, so that every line becomes a
/// range. The other attributes are zero. Throws std::runtime_error that names the file and line.
ravel::vIPProperty readGeoipTable(const std::string& path = kGeoipPath);

}  // namespace tolvar_bench
