#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/index/allocation_count.h"
#include "tests/support/client_test_access.h"

namespace tolvar_test {
namespace {

constexpr std::uint32_t kRanges = 1000;

/// A client with a table whose names fit into no short-string buffer.
class ClientAllocations : public testing::Test {
 protected:
  ClientAllocations() {
    ravel::vIPProperty table(kRanges);
    tolvar::ClientInternals::CodeMaps maps;
    for (std::uint32_t i = 0; i < kRanges; ++i) {
      table[i].startIP = i * 10;
      table[i].endIP = i * 10 + 8;
      table[i].place = i;
      maps[3][i].content = "a name that no short-string buffer holds";
    }
    tolvar::ClientTestAccess(client).publishAll(table, maps);
    for (std::uint32_t i = 0; i < 500; ++i) {
      ips.push_back(i * 21);  // hits and misses
      texts.push_back("0.0." + std::to_string(ips[i] >> 8) + "." + std::to_string(ips[i] & 255));
    }
    EXPECT_TRUE(client.getIPInfo(5, &info)) << "a thread's first read section enlists it";
  }

  TolvarAPI client;
  std::vector<std::uint32_t> ips;
  std::vector<std::string> texts;
  ravel::IPInfo info;
};

TEST_F(ClientAllocations, CountIsAlive) {
  const std::size_t before = allocationCount();
  const std::vector<int> memory(10);
  EXPECT_EQ(allocationCount(), before + 1) << memory.size();
}

TEST_F(ClientAllocations, NumericLookupsMakeNone) {
  std::size_t hits = 0;
  const std::size_t before = allocationCount();
  for (const std::uint32_t ip : ips) hits += client.getIPInfo(ip, &info);
  EXPECT_EQ(allocationCount(), before);
  EXPECT_GT(hits, 400u);
  EXPECT_LT(hits, ips.size());
}

TEST_F(ClientAllocations, BatchesMakeNone) {
  std::vector<ravel::IPInfo> infos(ips.size());
  std::vector<std::uint8_t> found(ips.size());
  const std::size_t before = allocationCount();
  const std::size_t hits = client.getIPInfoBatch(ips, infos.data(), found.data());
  const std::size_t again = client.read().getIPInfoBatch(ips, infos.data(), found.data());
  EXPECT_EQ(allocationCount(), before);
  EXPECT_GT(hits, 400u);
  EXPECT_EQ(again, hits);
}

TEST_F(ClientAllocations, NamesAsViewsMakeNone) {
  std::size_t letters = 0;
  const std::size_t before = allocationCount();
  {
    const TolvarReader reader = client.read();
    IPNameView names;
    for (const std::uint32_t ip : ips) {
      if (reader.getIPInfo(ip, &names)) letters += names.district().size();
    }
  }
  EXPECT_EQ(allocationCount(), before);
  EXPECT_GT(letters, 400u * 30);
}

TEST_F(ClientAllocations, AddressTextMakesNone) {
  std::size_t hits = 0;
  const std::size_t before = allocationCount();
  for (const std::string& text : texts) hits += client.getIPInfoFromStr(text, &info);
  EXPECT_EQ(allocationCount(), before);
  EXPECT_GT(hits, 400u);
  EXPECT_LT(hits, texts.size());
}

TEST_F(ClientAllocations, AReusedMessageMakesNone) {
  IPHumanMessage message;
  EXPECT_TRUE(client.getIPInfo(5, &message));
  std::size_t letters = 0;
  const std::size_t before = allocationCount();
  for (const std::uint32_t ip : ips) {
    if (client.getIPInfo(ip, &message)) letters += message.m_district.size();
  }
  EXPECT_EQ(allocationCount(), before);
  EXPECT_GT(letters, 400u * 30);
}

}  // namespace
}  // namespace tolvar_test
