#pragma once

#include <cstdint>
#include <string>

namespace tolvar_test {

/// A table of any size that is made up row by row, so that what it says about an address is known
/// without holding it in memory.
///
/// The address space is cut into `ranges` blocks of equal size. Row i begins in the first quarter
/// of block i and takes up to half a block, so that holes are between all rows. Its attributes are
/// one of 86,000 combinations of 16 countries, 5,760 cities, 211 operators and 5 network types.
/// Where in its block a row lies and what it says follow from i alone.
class GeneratedTable {
 public:
  struct Row {
    std::uint32_t start;
    std::uint32_t end;
    std::string code;     ///< of the country, as the file has it
    std::string country;  ///< as answers have it
    std::string province;
    std::string city;
    std::string oper;
    std::string nettype;
  };

  /// `ranges` is 1 to 2^24; throws std::invalid_argument otherwise.
  explicit GeneratedTable(std::uint32_t ranges);

  std::uint32_t ranges() const noexcept { return _ranges; }
  Row row(std::uint32_t i) const;

  /// Writes the table as CSV; a failure fails the test.
  void write(const std::string& path) const;

 private:
  std::uint32_t _ranges;
  std::uint32_t _block = 0;  ///< addresses
};

}  // namespace tolvar_test
