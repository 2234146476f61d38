#include "bench/support/geoip_table.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <stdexcept>

namespace tolvar_bench {
namespace {

std::int64_t letterNumber(char letter) {
  if (letter >= 'A' && letter <= 'Z') return letter - 'A';
  if (letter >= '0' && letter <= '9') return 26 + letter - '0';
  return 36;
}

bool parseLine(const std::string& line, ravel::IPProperty* range) {
  const char* const end = line.data() + line.size();
  const auto first = std::from_chars(line.data(), end, range->startIP);
  if (first.ec != std::errc() || first.ptr == end || *first.ptr != ',') return false;
  const auto last = std::from_chars(first.ptr + 1, end, range->endIP);
  if (last.ec != std::errc() || end - last.ptr != 3 || *last.ptr != ',') return false;
  const std::int64_t country = letterNumber(last.ptr[1]) * 36 + letterNumber(last.ptr[2]) + 1;
  range->place = country * 1000000000;
  return range->startIP <= range->endIP;
}

}  // namespace

ravel::vIPProperty readGeoipTable(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(path + ": cannot be read; install tor-geoipdb");
  ravel::vIPProperty table;
  std::string line;
  for (std::size_t number = 1; std::getline(file, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    ravel::IPProperty range;
    if (!parseLine(line, &range)) {
      throw std::runtime_error(path + ":" + std::to_string(number) + ": not \"first,last,CC\"");
    }
    table.push_back(range);
  }
  std::sort(table.begin(), table.end());
  return table;
}

}  // namespace tolvar_bench
