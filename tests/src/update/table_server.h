#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "records/records.h"
#include "tests/support/fake_service.h"
#include "tests/support/range_records.h"

namespace tolvar_test {

struct Table {
  std::vector<ravel::IPProperty> rows;
  std::vector<ravel::CodeInfo> codes;
};

ravel::IPProperty row(std::uint32_t start, std::uint32_t end, std::int64_t place = 86001002003,
                      std::uint32_t oper = 1);
ravel::CodeInfo code(std::int32_t type, std::int64_t id, const std::string& name);

/// `count` ranges of 128 addresses, 256 apart, from kFirstAddress on, every field of which follows
/// from the version and the start; and code tables in which every name carries the version. An
/// answer that mixes two rows or two versions shows.
inline constexpr std::uint32_t kFirstAddress = 0x01000000;
Table selfCheckingTable(std::uint32_t version, std::size_t count);

/// The version that an answer for an address in such a table belongs to, 0 when its fields do not
/// belong together.
std::uint32_t versionOf(std::uint32_t ip, const ravel::IPInfo& info);

/// A service with one table, answering through a FakeService: resets clients whose digest differs,
/// sends pages by cursor, starts afresh for a cursor of another version. Any thread.
class TableServer {
 public:
  /// Pages have at most `pageRanges` ranges, whatever the client asks for.
  explicit TableServer(const std::shared_ptr<FakeService>& service, std::size_t pageRanges = 50000);
  ~TableServer();
  TableServer(const TableServer&) = delete;
  TableServer& operator=(const TableServer&) = delete;

  void publish(Table table);
  std::string digest() const;

  /// While down, every call fails with "the service is down".
  void setDown(bool down) { _down = down; }

  /// Runs before each page and each download of the code tables is answered, on the client's
  /// thread. Set before clients call.
  std::function<void()> beforePage;
  std::function<void()> beforeCodes;

 private:
  void failWhenDown() const;
  void answerPage(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                  ravel::downloadInfo& page);

  const std::shared_ptr<FakeService> _service;
  const std::size_t _pageRanges;
  std::atomic<bool> _down{false};
  mutable std::mutex _mutex;
  // Guarded by _mutex.
  Table _table;
  std::uint32_t _stamp = 1000;
  std::string _digest;
};

}  // namespace tolvar_test
