#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "records/records.h"
#include "tests/support/client_test_access.h"
#include "tests/support/raw_image.h"
#include "tests/support/shm_keys.h"

namespace tolvar_test {

/// What the tests put into a data segment.
struct TestTable {
  std::vector<ravel::IPAttribute> ranges;
  std::array<std::vector<ravel::CodeInfo>, 8> codes;  ///< codeType is the index + 1
};

/// A few ranges and names; another `version` differs in every one of them.
TestTable smallTable(int version);

/// Ascending ranges with holes between some of them, single addresses among them; the first begins
/// at 0.0.0.0 and the last ends at 255.255.255.255. `codesPerTable` names in each code table.
TestTable randomTable(std::mt19937_64& random, std::size_t ranges, std::size_t codesPerTable);

/// The table as the raw reader shows it.
std::vector<RawRange> rawRanges(const TestTable& table);
std::vector<RawCode> rawCodes(const TestTable& table, int code);

/// What was written to standard output and standard error during its life.
class CapturedOutput {
 public:
  CapturedOutput();
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  /// Ends the capture.
  void stop();
  std::string out, err;

 private:
  bool _running = true;
};

/// A client that never starts its thread, entered through its parts.
struct StoreClient {
  TolvarAPI api;
  tolvar::ClientTestAccess access{api};

  /// Attaches the segments. The lines written are in `out` and `err` afterwards, also after an
  /// exception.
  void open(const ShmKeys& keys) { open(keys.data0(), keys.data1(), keys.size()); }
  void open(key_t first, key_t second, key_t size);

  /// Replaces the content of a data segment, which keeps its statuses.
  void fill(int segment, const TestTable& table);
  void announce(int segment, std::uint32_t ipStatus, std::uint32_t codeStatus);

  std::string out, err;
};

/// Lays the segments behind the keys and leaves `table`, announced as ready, in both.
void publishImage(const ShmKeys& keys, const TestTable& table);

/// True when `client` answers from `table`: digest, mask and one lookup in every range.
testing::AssertionResult answersFrom(StoreClient& client, const TestTable& table);

}  // namespace tolvar_test
