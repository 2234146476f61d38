#include "tests/tolvard/generated_table.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <stdexcept>

namespace tolvar_test {
namespace {

struct Country {
  const char* code;
  const char* name;
};
constexpr std::array<Country, 16> kCountries{{{"DE", "Germany"},
                                              {"FR", "France"},
                                              {"IT", "Italy"},
                                              {"ES", "Spain"},
                                              {"PL", "Poland"},
                                              {"SE", "Sweden"},
                                              {"NO", "Norway"},
                                              {"FI", "Finland"},
                                              {"JP", "Japan"},
                                              {"BR", "Brazil"},
                                              {"CA", "Canada"},
                                              {"AU", "Australia"},
                                              {"KE", "Kenya"},
                                              {"EG", "Egypt"},
                                              {"PE", "Peru"},
                                              {"NZ", "New Zealand"}}};
constexpr std::uint32_t kProvinces = 30;  ///< of a country
constexpr std::uint32_t kCities = 12;     ///< of a province
constexpr std::uint32_t kOperators = 211;
constexpr std::uint32_t kNettypes = 5;
constexpr std::uint32_t kCombinations = 86000;
constexpr std::uint32_t kMostRanges = 1 << 24;

/// Numbers without a visible order, the same for the same `i` and `use`.
std::uint32_t scattered(std::uint32_t i, std::uint32_t use) {
  std::uint64_t x = (std::uint64_t{use} << 32 | i) + 1;
  for (int round = 0; round < 2; ++round) {
    x *= 0x9E3779B97F4A7C15u;  // 2^64 over the golden ratio
    x ^= x >> 31;
  }
  return static_cast<std::uint32_t>(x);
}

}  // namespace

GeneratedTable::GeneratedTable(std::uint32_t ranges) : _ranges(ranges) {
  if (ranges == 0 || ranges > kMostRanges)
    throw std::invalid_argument("a table has 1 to " + std::to_string(kMostRanges) + " ranges");
  _block = static_cast<std::uint32_t>((std::uint64_t{1} << 32) / ranges - 1);
}

GeneratedTable::Row GeneratedTable::row(std::uint32_t i) const {
  Row row;
  row.start = i * _block + scattered(i, 0) % (_block / 4);
  row.end = row.start + scattered(i, 1) % (_block / 2);
  const std::uint32_t combination = scattered(i, 2) % kCombinations;
  std::uint32_t place = combination;
  const Country& country = kCountries[place % kCountries.size()];
  row.code = country.code;
  row.country = country.name;
  place /= static_cast<std::uint32_t>(kCountries.size());
  row.province = "P" + std::to_string(place % kProvinces);
  row.city = "C" + std::to_string(place / kProvinces % kCities);
  row.oper = "O" + std::to_string(combination % kOperators);
  row.nettype = "N" + std::to_string(combination % kNettypes);
  return row;
}

void GeneratedTable::write(const std::string& path) const {
  std::ofstream out(path, std::ios::binary);
  out << "start,end,country,province,city,oper,nettype\n";
  for (std::uint32_t i = 0; i < _ranges; ++i) {
    const Row one = row(i);
    out << one.start << ',' << one.end << ',' << one.code << ',' << one.province << ',' << one.city
        << ',' << one.oper << ',' << one.nettype << '\n';
  }
  out.close();
  EXPECT_TRUE(out.good()) << "cannot write " << path;
}

}  // namespace tolvar_test
