// Lookups of addresses: ids and names, statistics and sampled lines.

#include "include/lookup_types.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/src/lookup_fixture.h"
#include "transport/grpc/wire_limits.h"

namespace {

using namespace tolvar_test;
using testing::ElementsAre;
using testing::IsEmpty;

class Lookup : public LookupTest {
 protected:
  Lookup() {
    ranges = {range(100, 199, 86110105001), range(300, 300, 999), range(400, 499, 86110105002)};
    names[0][86] = "China";
    names[1][86110] = "Beijing";
    names[2][86110105] = "Chaoyang City";
    names[3][86110105001] = "Chaoyang";
    names[4][1] = "extension";
    names[5][2] = "carrier";
    names[6][3] = "fibre";
    names[7][4] = "gateway";
    publish();
  }

  static ravel::IPProperty range(std::uint32_t start, std::uint32_t end, std::int64_t place) {
    ravel::IPProperty made;
    made.startIP = start;
    made.endIP = end;
    made.place = place;
    made.extend = 1;
    made.oper = 2;
    made.nettype = 3;
    made.apn = 4;
    made.flable = 5;
    return made;
  }

  bool found(std::uint32_t ip) {
    ravel::IPInfo info;
    return client.api.getIPInfo(ip, &info);
  }

  ravel::IPInfo infoAt(std::uint32_t ip) {
    ravel::IPInfo info;
    EXPECT_TRUE(client.api.getIPInfo(ip, &info)) << ip;
    return info;
  }
};

TEST_F(Lookup, BothBoundsOfARangeAreFound) {
  EXPECT_TRUE(found(100));
  EXPECT_TRUE(found(199));
  EXPECT_TRUE(found(300));
  VALUE value;
  EXPECT_TRUE(client.access.binarySearch(100, &value));
  EXPECT_TRUE(client.access.binarySearch(199, &value));
}

TEST_F(Lookup, AddressesOutsideAllRangesAreNotFound) {
  for (const std::uint32_t ip : {0u, 99u, 200u, 299u, 301u, 399u, 500u, 0xFFFFFFFFu}) {
    EXPECT_FALSE(found(ip)) << ip;
    VALUE value;
    value.place = -7;
    EXPECT_FALSE(client.access.binarySearch(ip, &value));
    EXPECT_EQ(value.place, -7);
  }
}

TEST_F(Lookup, MissLeavesTheOutputUntouched) {
  ravel::IPInfo info;
  info.country = 1234;
  info.apn = 9;
  EXPECT_FALSE(client.api.getIPInfo(200u, &info));
  EXPECT_EQ(info.country, 1234u);
  EXPECT_EQ(info.apn, 9u);
  IPHumanMessage message;
  message.m_city = "as before";
  EXPECT_FALSE(client.api.getIPInfo(200u, &message));
  EXPECT_EQ(message.m_city, "as before");
  EXPECT_FALSE(client.api.getIPInfoFromStr("0.0.0.200", &message));
  EXPECT_EQ(message.m_city, "as before");
}

TEST_F(Lookup, PlaceUnpacksByDecimalPrefix) {
  const ravel::IPInfo info = infoAt(100);
  EXPECT_EQ(info.district, 86110105001);
  EXPECT_EQ(info.city, 86110105u);
  EXPECT_EQ(info.province, 86110u);
  EXPECT_EQ(info.country, 86u);
  EXPECT_EQ(info.extend, 1u);
  EXPECT_EQ(info.oper, 2u);
  EXPECT_EQ(info.nettype, 3u);
  EXPECT_EQ(info.apn, 4u);
  EXPECT_EQ(info.flable, 5u);
}

TEST_F(Lookup, PlaceBelow1000HasNoHigherLevels) {
  const ravel::IPInfo info = infoAt(300);
  EXPECT_EQ(info.district, 999);
  EXPECT_EQ(info.city, 0u);
  EXPECT_EQ(info.province, 0u);
  EXPECT_EQ(info.country, 0u);
}

TEST_F(Lookup, PlaceIsSplitTowardsZeroAndStoredInItsLow32Bits) {
  ranges = {range(1, 1, -86110105999), range(2, 2, INT64_MAX), range(3, 3, INT64_MIN)};
  publish();
  EXPECT_EQ(infoAt(1).district, -86110105999);
  EXPECT_EQ(infoAt(1).city, static_cast<std::uint32_t>(-86110105));
  EXPECT_EQ(infoAt(1).country, static_cast<std::uint32_t>(-86));
  EXPECT_EQ(infoAt(2).city, static_cast<std::uint32_t>(9223372036854775));
  EXPECT_EQ(infoAt(2).province, static_cast<std::uint32_t>(9223372036854));
  EXPECT_EQ(infoAt(2).country, static_cast<std::uint32_t>(9223372036));
  EXPECT_EQ(infoAt(3).district, INT64_MIN);
}

TEST_F(Lookup, ApnAndLabelAreNarrowedTo8Bits) {
  ranges = {range(1, 1, 5), range(2, 2, 5)};
  ranges[0].apn = 0x1FF;
  ranges[0].flable = 0x100;
  ranges[1].apn = 0x100;
  ranges[1].flable = 0xFFFFFF0F;
  publish();
  VALUE value;
  ASSERT_TRUE(client.access.binarySearch(1, &value));
  EXPECT_EQ(value.apn, 255);
  EXPECT_EQ(value.flable, 0);
  EXPECT_EQ(infoAt(1).apn, 255u);
  EXPECT_EQ(infoAt(1).flable, 0u);
  EXPECT_EQ(infoAt(2).apn, 0u);
  EXPECT_EQ(infoAt(2).flable, 15u);
}

TEST_F(Lookup, SearchGivesTheCompactFields) {
  VALUE value;
  ASSERT_TRUE(client.access.binarySearch(450, &value));
  EXPECT_EQ(value.place, 86110105002);
  EXPECT_EQ(value.extend, 1u);
  EXPECT_EQ(value.oper, 2u);
  EXPECT_EQ(value.nettype, 3u);
  EXPECT_EQ(value.apn, 4);
  EXPECT_EQ(value.flable, 5);
}

TEST_F(Lookup, EmptyTableAnswersFalse) {
  ranges.clear();
  publish();
  for (const std::uint32_t ip : {0u, 100u, 0xFFFFFFFFu}) EXPECT_FALSE(found(ip));
  IPHumanMessage message;
  EXPECT_FALSE(client.api.getIPInfo(100u, &message));
  ravel::IPInfo info;
  EXPECT_FALSE(client.api.getIPInfoFromStr("0.0.0.100", &info));
}

TEST_F(Lookup, ClientWithoutATableAnswersFalse) {
  StoreClient fresh;
  ravel::IPInfo info;
  IPHumanMessage message;
  VALUE value;
  EXPECT_FALSE(fresh.api.getIPInfo(100u, &info));
  EXPECT_FALSE(fresh.api.getIPInfo(100u, &message));
  EXPECT_FALSE(fresh.api.getIPInfoFromStr("0.0.0.100", &info));
  EXPECT_FALSE(fresh.api.getIPInfoFromStr("0.0.0.100", &message));
  EXPECT_FALSE(fresh.access.binarySearch(100, &value));
  EXPECT_EQ(fresh.api.getCountryByID(86), "");
  EXPECT_EQ(fresh.api.getFlableByID(1), "FROM_QK");
}

TEST_F(Lookup, FirstOfRangesWithTheSameEndAnswers) {
  ranges = {range(10, 20, 1), range(15, 20, 2)};
  publish();
  EXPECT_EQ(infoAt(15).district, 1);
  EXPECT_EQ(infoAt(20).district, 1);
}

TEST_F(Lookup, NamesOfAllNineFields) {
  IPHumanMessage message;
  ASSERT_TRUE(client.api.getIPInfo(150u, &message));
  EXPECT_EQ(message.m_country, "China");
  EXPECT_EQ(message.m_province, "Beijing");
  EXPECT_EQ(message.m_city, "Chaoyang City");
  EXPECT_EQ(message.m_district, "Chaoyang");
  EXPECT_EQ(message.m_extend, "extension");
  EXPECT_EQ(message.m_oper, "carrier");
  EXPECT_EQ(message.m_nettype, "fibre");
  EXPECT_EQ(message.m_apn, "gateway");
  EXPECT_EQ(message.m_flable, "FROM_PLEX2");
  EXPECT_EQ(message.ToString(),
            " country=China province=Beijing city=Chaoyang City district=Chaoyang extend=extension"
            " oper=carrier nettype=fibre apn=gateway flable=FROM_PLEX2");
}

TEST_F(Lookup, MissingNamesAreEmptyAndReplaceWhatWasThere) {
  IPHumanMessage message;
  message.m_country = message.m_district = "from before";
  ASSERT_TRUE(client.api.getIPInfo(300u, &message));
  EXPECT_EQ(message.m_country, "");
  EXPECT_EQ(message.m_district, "");
  EXPECT_EQ(message.m_oper, "carrier");
}

TEST(IPHumanMessage, EmptyOneIsTheNineKeys) {
  EXPECT_EQ(IPHumanMessage().ToString(),
            " country= province= city= district= extend= oper= nettype= apn= flable=");
}

TEST_F(Lookup, TextAddressesAreDottedQuads) {
  ravel::IPInfo info;
  EXPECT_TRUE(client.api.getIPInfoFromStr("0.0.0.199", &info));
  EXPECT_EQ(info.country, 86u);
  EXPECT_FALSE(client.api.getIPInfoFromStr("0.0.0.200", &info));
  IPHumanMessage message;
  EXPECT_TRUE(client.api.getIPInfoFromStr("0.0.1.44", &message));  // 300
  for (const char* text : {"", "100", "0.0.0.0100", "0.0.0.100 ", "a.b.c.d", "0.0.0.256"}) {
    EXPECT_FALSE(client.api.getIPInfoFromStr(text, &info)) << text;
    EXPECT_FALSE(client.api.getIPInfoFromStr(text, &message)) << text;
  }
}

TEST_F(Lookup, MalformedTextIsLookedUpAsZero) {
  ranges.insert(ranges.begin(), range(0, 0, 7));
  publish();
  ravel::IPInfo info;
  EXPECT_TRUE(client.api.getIPInfoFromStr("nonsense", &info));
  EXPECT_EQ(info.district, 7);
}

// --- Statistics -------------------------------------------------------------------------------

TEST_F(Lookup, NamedHitReportsFourNamesOnceEach) {
  configure([](ravel::ClientConf& conf) { conf.statisOpen = true; });
  IPHumanMessage message;
  ASSERT_TRUE(client.api.getIPInfo(100u, &message));
  ASSERT_TRUE(client.api.getIPInfoFromStr("0.0.0.101", &message));
  EXPECT_THAT(reportedCounts(),
              ElementsAre("0 China 2", "1 Beijing 2", "2 Chaoyang City 2", "3 carrier 2"));
}

TEST_F(Lookup, EmptyNamesAreReportedToo) {
  configure([](ravel::ClientConf& conf) { conf.statisOpen = true; });
  IPHumanMessage message;
  ASSERT_TRUE(client.api.getIPInfo(300u, &message));
  EXPECT_THAT(reportedCounts(), ElementsAre("0  1", "1  1", "2  1", "3 carrier 1"));
}

TEST_F(Lookup, MissesAndNumericHitsReportNothing) {
  configure([](ravel::ClientConf& conf) { conf.statisOpen = true; });
  IPHumanMessage message;
  client.api.getIPInfo(200u, &message);
  ravel::IPInfo info;
  client.api.getIPInfo(100u, &info);
  client.api.getIPInfoFromStr("0.0.0.100", &info);
  EXPECT_THAT(reportedCounts(), IsEmpty());
}

TEST_F(Lookup, NothingIsReportedUnlessTheServiceAsks) {
  IPHumanMessage message;
  ASSERT_TRUE(client.api.getIPInfo(100u, &message));
  client.api.getCountryByID(86);
  EXPECT_THAT(reportedCounts(), IsEmpty());
}

// --- Sampling ---------------------------------------------------------------------------------

TEST_F(Lookup, RateOf10000LogsEveryMissOfTheNumericTextForm) {
  configure([](ravel::ClientConf& conf) {
    conf.simplingRate = 10000;
    conf.logUnknownIp = true;
  });
  ravel::IPInfo info;
  for (const char* text : {"0.0.0.1", "9.9.9.9", "not an address", ""})
    client.api.getIPInfoFromStr(text, &info);
  client.api.getIPInfoFromStr("0.0.0.100", &info);  // a hit is never logged
  IPHumanMessage message;
  client.api.getIPInfoFromStr("9.9.9.9", &message);  // nor a miss of the named form
  EXPECT_THAT(reportedLines(), ElementsAre("unknown ip:0.0.0.1", "unknown ip:9.9.9.9",
                                           "unknown ip:not an address", "unknown ip:"));
}

TEST_F(Lookup, AMissOfAVastTextIsLoggedInALineThatCanBeDelivered) {
  configure([](ravel::ClientConf& conf) {
    conf.simplingRate = 10000;
    conf.logUnknownIp = true;
  });
  const std::string vast(100000, '1');
  const std::string longest(tolvar::wire::kMaxReportLineBytes - 11, '2');
  ravel::IPInfo info;
  client.api.getIPInfoFromStr(vast, &info);
  client.api.getIPInfoFromStr(longest, &info);
  const std::vector<std::string> lines = reportedLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].size(), tolvar::wire::kMaxReportLineBytes);
  EXPECT_EQ(lines[0].substr(0, 12), "unknown ip:1");
  EXPECT_EQ(lines[0].substr(lines[0].size() - 4), "1...");
  EXPECT_EQ(lines[1], "unknown ip:" + longest);
}

TEST_F(Lookup, RateOf0LogsNoMiss) {
  configure([](ravel::ClientConf& conf) { conf.logUnknownIp = true; });
  ravel::IPInfo info;
  for (int i = 0; i < 20001; ++i) client.api.getIPInfoFromStr("9.9.9.9", &info);
  EXPECT_EQ(client.access.simpleKey(), 20001);
  EXPECT_THAT(reportedLines(), IsEmpty());
}

TEST_F(Lookup, MissesAreNotLoggedUnlessTheServiceAsksButAreCounted) {
  configure([](ravel::ClientConf& conf) { conf.simplingRate = 10000; });
  ravel::IPInfo info;
  client.api.getIPInfoFromStr("9.9.9.9", &info);
  EXPECT_EQ(client.access.simpleKey(), 1);
  EXPECT_THAT(reportedLines(), IsEmpty());
}

TEST_F(Lookup, RateOf1TakesTheCallsThatEndIn0000) {
  configure([](ravel::ClientConf& conf) { conf.simplingRate = 1; });
  for (int call = 1; call <= 30000; ++call)
    EXPECT_EQ(client.access.simple(), call % 10000 == 0) << call;
}

TEST_F(Lookup, NegativeRateTakesNone) {
  configure([](ravel::ClientConf& conf) { conf.simplingRate = -1; });
  for (int call = 1; call <= 10000; ++call) EXPECT_FALSE(client.access.simple());
}

TEST_F(Lookup, CounterThatWrapsStaysPositive) {
  client.access.simpleKey() = INT64_MAX;
  for (int call = 0; call < 3; ++call) {
    EXPECT_FALSE(client.access.simple());
    EXPECT_GE(client.access.simpleKey(), 0);
  }
  client.access.simpleKey() = -10001;
  configure([](ravel::ClientConf& conf) { conf.simplingRate = 1; });
  EXPECT_TRUE(client.access.simple()) << "-10000 counts as 10000";
  EXPECT_EQ(client.access.simpleKey(), 10000);
}

TEST_F(Lookup, NamedTextHitsInTheListedCitiesAreLogged) {
  configure([](ravel::ClientConf& conf) {
    conf.simplingRate = 10000;
    conf.simpleLogCitys = {"Chaoyang City"};
  });
  IPHumanMessage message;
  client.api.getIPInfoFromStr("0.0.0.100", &message);
  const std::string line = message.ToString();
  client.api.getIPInfoFromStr("0.0.1.44", &message);  // another city
  client.api.getIPInfo(100u, &message);               // not a text lookup
  EXPECT_EQ(client.access.simpleKey(), 2) << "every named text hit counts";
  client.api.getIPInfoFromStr("9.9.9.9", &message);
  EXPECT_EQ(client.access.simpleKey(), 2) << "a miss does not";
  EXPECT_THAT(reportedLines(), ElementsAre(line));
}

TEST_F(Lookup, CityWithoutANameCanBeListed) {
  configure([](ravel::ClientConf& conf) {
    conf.simplingRate = 10000;
    conf.simpleLogCitys = {""};
  });
  IPHumanMessage message;
  client.api.getIPInfoFromStr("0.0.1.44", &message);
  EXPECT_THAT(reportedLines(), ElementsAre(message.ToString()));
}

TEST_F(Lookup, BufferLimitOfTheConfigurationBoundsTheLines) {
  configure([](ravel::ClientConf& conf) { conf.logBufferLimit = 2; });
  for (int i = 0; i < 5; ++i) client.access.reportLog("line " + std::to_string(i));
  EXPECT_THAT(reportedLines(), ElementsAre("line 0", "line 1"));
}

// --- Value types ------------------------------------------------------------------------------

TEST(GeneralAttribute, IsTheRangeIn36Bytes) {
  ravel::IPAttribute range;
  range.startIP = 0x01020304;
  range.endIP = 0x05060708;
  range.place = 0x1112131415161718;
  range.extend = 0x21222324;
  range.oper = 0x31323334;
  range.nettype = 0x41424344;
  range.apn = 0x51525354;
  range.flable = 0x61626364;
  const GeneralAttribute image(range);
  const std::string bytes(reinterpret_cast<const char*>(&image), sizeof image);
  EXPECT_EQ(bytes,
            "\x04\x03\x02\x01\x08\x07\x06\x05\x24\x23\x22\x21\x34\x33\x32\x31"
            "\x44\x43\x42\x41\x54\x53\x52\x51\x64\x63\x62\x61"
            "\x18\x17\x16\x15\x14\x13\x12\x11");
}

TEST(IPPropertyComparator, ComparesTheRangesEndUnsigned) {
  ravel::IPProperty range;
  range.endIP = 0x80000000u;
  const IPPropertyComparator below;
  EXPECT_TRUE(below(range, 0x80000001u));
  EXPECT_FALSE(below(range, 0x80000000u));
  EXPECT_FALSE(below(range, 1u));
  EXPECT_TRUE(below(1u, range));
  EXPECT_FALSE(below(0x80000000u, range));
}

}  // namespace
