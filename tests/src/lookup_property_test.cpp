// Lookups against a linear scan over the same random table.

#include <gtest/gtest.h>

#include <random>

#include "tests/src/store_fixture.h"

namespace {

using namespace tolvar_test;

const ravel::IPAttribute* scan(const TestTable& table, std::uint32_t ip) {
  for (const ravel::IPAttribute& range : table.ranges)
    if (range.startIP <= ip && ip <= range.endIP) return &range;
  return nullptr;
}

/// The last entry with the id, as later entries replace earlier ones.
std::string scanName(const TestTable& table, std::size_t code, std::uint64_t id) {
  std::string name;
  for (const ravel::CodeInfo& entry : table.codes[code])
    if (static_cast<std::uint64_t>(entry.ID) == id) name = entry.content;
  return name;
}

/// Gives the ranges places and ids that have names, so that names are really compared.
void nameTheRanges(std::mt19937_64& random, TestTable* table) {
  for (ravel::IPAttribute& range : table->ranges) {
    const auto& districts = table->codes[3];
    if (random() % 3 != 0) range.place = districts[random() % districts.size()].ID;
    range.oper = static_cast<std::uint32_t>(table->codes[5][random() % 5].ID);
  }
  for (std::size_t level = 0; level < 3; ++level) {
    std::int64_t divisor = level == 0 ? 1000000000 : level == 1 ? 1000000 : 1000;
    for (std::size_t i = 0; i < table->codes[level].size(); i += 2) {
      const std::int64_t place = table->ranges[random() % table->ranges.size()].place;
      table->codes[level][i].ID = static_cast<std::uint32_t>(place / divisor);
    }
  }
}

class LookupProperty : public testing::TestWithParam<unsigned> {
 protected:
  static void expectSame(StoreClient& client, const TestTable& table, std::uint32_t ip) {
    const ravel::IPAttribute* expected = scan(table, ip);
    ravel::IPInfo info;
    IPHumanMessage message;
    VALUE value;
    ASSERT_EQ(client.api.getIPInfo(ip, &info), expected != nullptr) << ip;
    ASSERT_EQ(client.api.getIPInfo(ip, &message), expected != nullptr) << ip;
    ASSERT_EQ(client.access.binarySearch(ip, &value), expected != nullptr) << ip;
    if (expected == nullptr) return;
    const std::int64_t place = expected->place;
    ASSERT_EQ(info.district, place) << ip;
    ASSERT_EQ(info.city, static_cast<std::uint32_t>(place / 1000)) << ip;
    ASSERT_EQ(info.province, static_cast<std::uint32_t>(place / 1000000)) << ip;
    ASSERT_EQ(info.country, static_cast<std::uint32_t>(place / 1000000000)) << ip;
    ASSERT_EQ(info.extend, expected->extend) << ip;
    ASSERT_EQ(info.oper, expected->oper) << ip;
    ASSERT_EQ(info.nettype, expected->nettype) << ip;
    ASSERT_EQ(info.apn, expected->apn & 0xFFu) << ip;
    ASSERT_EQ(info.flable, expected->flable & 0xFFu) << ip;
    ASSERT_EQ(value.place, place) << ip;
    ASSERT_EQ(value.oper, expected->oper) << ip;
    ASSERT_EQ(message.m_country, scanName(table, 0, info.country)) << ip;
    ASSERT_EQ(message.m_province, scanName(table, 1, info.province)) << ip;
    ASSERT_EQ(message.m_city, scanName(table, 2, info.city)) << ip;
    ASSERT_EQ(message.m_district, scanName(table, 3, static_cast<std::uint64_t>(place))) << ip;
    ASSERT_EQ(message.m_extend, scanName(table, 4, info.extend)) << ip;
    ASSERT_EQ(message.m_oper, scanName(table, 5, info.oper)) << ip;
    ASSERT_EQ(message.m_nettype, scanName(table, 6, info.nettype)) << ip;
    ASSERT_EQ(message.m_apn, scanName(table, 7, info.apn)) << ip;
    ASSERT_EQ(message.m_flable, client.api.getFlableByID(info.flable)) << ip;
  }
};

TEST_P(LookupProperty, AgreeWithALinearScanOfThePublishedImage) {
  std::mt19937_64 random(GetParam());
  ShmKeys keys;
  StoreClient writer;
  writer.open(keys);
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    TestTable table = randomTable(random, 1 + random() % 150, 10 + random() % 20);
    nameTheRanges(random, &table);
    writer.fill(0, table);
    writer.announce(0, 1, 1);
    StoreClient client;
    client.open(keys);
    ASSERT_TRUE(client.access.hasInitialized() == 3);
    for (const ravel::IPAttribute& range : table.ranges) {
      for (const std::uint32_t ip : {range.startIP - 1, range.startIP, range.startIP + 1,
                                     range.startIP + (range.endIP - range.startIP) / 2,
                                     range.endIP - 1, range.endIP, range.endIP + 1})
        ASSERT_NO_FATAL_FAILURE(expectSame(client, table, ip));
    }
    for (const std::uint32_t ip : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu})
      ASSERT_NO_FATAL_FAILURE(expectSame(client, table, ip));
    for (int i = 0; i < 500; ++i)
      ASSERT_NO_FATAL_FAILURE(expectSame(client, table, static_cast<std::uint32_t>(random())));
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, LookupProperty, testing::Range(1u, 6u));

TEST(LookupExtremes, FirstAndLastAddressAreRangesOfTheirOwn) {
  TestTable table;
  for (const std::uint32_t ip : {0u, 0xFFFFFFFFu}) {
    ravel::IPAttribute range;
    range.startIP = range.endIP = ip;
    range.place = ip == 0 ? 1 : 2;
    table.ranges.push_back(range);
  }
  ShmKeys keys;
  publishImage(keys, table);
  StoreClient client;
  client.open(keys);
  ravel::IPInfo info;
  EXPECT_TRUE(client.api.getIPInfo(0u, &info));
  EXPECT_EQ(info.district, 1);
  EXPECT_TRUE(client.api.getIPInfo(0xFFFFFFFFu, &info));
  EXPECT_EQ(info.district, 2);
  EXPECT_FALSE(client.api.getIPInfo(1u, &info));
  EXPECT_FALSE(client.api.getIPInfo(0xFFFFFFFEu, &info));
  EXPECT_TRUE(client.api.getIPInfoFromStr("255.255.255.255", &info));
  EXPECT_TRUE(client.api.getIPInfoFromStr("0.0.0.0", &info));
}

TEST(LookupExtremes, OneRangeOverAllAddresses) {
  TestTable table;
  ravel::IPAttribute range;
  range.endIP = 0xFFFFFFFFu;
  range.place = 5;
  table.ranges.push_back(range);
  ShmKeys keys;
  publishImage(keys, table);
  StoreClient client;
  client.open(keys);
  ravel::IPInfo info;
  for (const std::uint32_t ip : {0u, 1u, 0x80000000u, 0xFFFFFFFFu})
    EXPECT_TRUE(client.api.getIPInfo(ip, &info)) << ip;
}

}  // namespace
