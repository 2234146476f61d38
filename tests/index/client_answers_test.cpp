#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>

#include "bench/support/geoip_table.h"
#include "bench/support/synthetic_table.h"
#include "tests/index/range_index_model.h"
#include "tests/support/client_test_access.h"

/// Holds every public form of lookup against a binary search over the records. The random addresses
/// are two million, or as many as the environment variable TOLVAR_RANDOM_ADDRESSES says; a run with
/// 1000000000 takes some ten minutes.

namespace tolvar_test {
namespace {

using ravel::IPProperty;
using ravel::vIPProperty;

std::uint64_t randomAddresses() {
  const char* const wanted = std::getenv("TOLVAR_RANDOM_ADDRESSES");
  return wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 2000000;
}

/// The range that contains the address: the first whose end is not below it, if it starts there.
const IPProperty* search(const vIPProperty& table, std::uint32_t ip) {
  const auto at = std::lower_bound(
      table.begin(), table.end(), ip,
      [](const IPProperty& range, std::uint32_t address) { return range.endIP < address; });
  return at != table.end() && at->startIP <= ip ? &*at : nullptr;
}

std::string textOf(std::uint32_t ip) {
  const in_addr address{htonl(ip)};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &address, text, sizeof text);
}

ravel::IPInfo marked() {
  ravel::IPInfo info;
  info.district = -77;
  return info;
}

class Differential {
 public:
  explicit Differential(vIPProperty table) : _table(std::move(table)) {
    const tolvar::ClientInternals::CodeMaps none;
    tolvar::ClientTestAccess(_client).publishAll(_table, none);
  }

  const vIPProperty& table() const { return _table; }

  /// Asks in batches and one by one; with `text` as a dotted quad too.
  void check(const std::vector<std::uint32_t>& ips, bool text) {
    std::vector<ravel::IPInfo> infos(ips.size(), marked());
    std::vector<std::uint8_t> found(ips.size(), 7);
    const std::size_t count = _client.getIPInfoBatch(ips, infos.data(), found.data());
    std::size_t hits = 0;
    for (std::size_t i = 0; i < ips.size(); ++i) {
      const IPProperty* const range = search(_table, ips[i]);
      const ravel::IPInfo wanted = expectedInfo(range);
      hits += range != nullptr;
      ASSERT_EQ(found[i], range != nullptr ? 1 : 0) << textOf(ips[i]);
      ASSERT_TRUE(same(infos[i], wanted)) << textOf(ips[i]);
      ravel::IPInfo info = marked();
      ASSERT_EQ(_client.getIPInfo(ips[i], &info), range != nullptr) << textOf(ips[i]);
      ASSERT_TRUE(same(info, range != nullptr ? wanted : marked())) << textOf(ips[i]);
      if (!text) continue;
      info = marked();
      ASSERT_EQ(_client.getIPInfoFromStr(textOf(ips[i]), &info), range != nullptr);
      ASSERT_TRUE(same(info, range != nullptr ? wanted : marked())) << textOf(ips[i]);
    }
    ASSERT_EQ(count, hits);
  }

  /// Start and end of every range, one below and one above.
  void checkEdges() {
    std::vector<std::uint32_t> ips;
    for (const IPProperty& range : _table) {
      for (const std::uint32_t edge : {range.startIP, range.endIP})
        ips.insert(ips.end(), {edge - 1, edge, edge + 1});
    }
    check(ips, true);
  }

  void checkRandom(std::uint64_t count) {
    std::mt19937 random(11);
    std::vector<std::uint32_t> ips;
    for (std::uint64_t done = 0; done < count && !testing::Test::HasFailure(); done += ips.size()) {
      ips.resize(std::min<std::uint64_t>(count - done, 1000));
      std::generate(ips.begin(), ips.end(), std::ref(random));
      check(ips, false);
    }
  }

 private:
  vIPProperty _table;
  TolvarAPI _client;
};

TEST(ClientAnswers, ARealTableOnEveryEdge) {
  Differential differential(tolvar_bench::readGeoipTable());
  ASSERT_GT(differential.table().size(), 100000u);
  differential.checkEdges();
}

TEST(ClientAnswers, ARealTableOnRandomAddresses) {
  Differential(tolvar_bench::readGeoipTable()).checkRandom(randomAddresses());
}

TEST(ClientAnswers, ASyntheticTableOnEveryEdge) {
  Differential(tolvar_bench::makeSyntheticTable({})).checkEdges();
}

TEST(ClientAnswers, ASyntheticTableOnRandomAddresses) {
  Differential(tolvar_bench::makeSyntheticTable({})).checkRandom(randomAddresses());
}

}  // namespace
}  // namespace tolvar_test
