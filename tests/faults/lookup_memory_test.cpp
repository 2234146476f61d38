// Lookups while there is no memory: they find nothing, and let no exception out.
#include <gtest/gtest.h>

#include "tests/faults/failing_allocations.h"
#include "tests/src/lookup_fixture.h"
#include "tests/support/range_records.h"

namespace tolvar_test {
namespace {

/// Longer than what any string has room for in itself, and than what a message's strings get.
std::string longName(const std::string& name) { return name + std::string(40, '.'); }

class LookupWithoutMemory : public LookupTest {
 protected:
  LookupWithoutMemory() {
    ravel::IPProperty range;
    range.startIP = 100;
    range.endIP = 199;
    range.place = 86110105001;
    range.oper = 2;
    ranges = {range};
    names[0][86] = country;
    names[2][86110105] = city;
    names[5][2] = longName("carrier");
    publish();
    configure([this](ravel::ClientConf& conf) {
      conf.simplingRate = 10000;  // every lookup
      conf.logUnknownIp = true;
      conf.logBufferLimit = 1000000;
      conf.simpleLogCitys = {city};
    });
  }

  /// Lets each allocation that `lookup` makes fail in turn; how many there were.
  template <class Lookup>
  static int failEach(Lookup lookup) {
    for (int number = 1;; ++number) {
      armAllocations(number, 1);
      EXPECT_NO_THROW(lookup());
      healAllocations();
      if (!allocationFailed()) return number - 1;
    }
  }

  const std::string country = longName("China");
  const std::string city = longName("Chaoyang City");
};

TEST_F(LookupWithoutMemory, AMessageHoldsAllNamesOrNone) {
  bool found = false;
  const int failures = failEach([&] {
    IPHumanMessage message;
    found = client.api.getIPInfo(150u, &message);
    EXPECT_TRUE(found ? message.m_country == country : message.m_country.empty());
    EXPECT_TRUE(found ? message.m_city == city : message.m_city.empty());
  });
  EXPECT_GE(failures, 3);
  EXPECT_TRUE(found);
}

TEST_F(LookupWithoutMemory, ANameIsEmpty) {
  std::string name;
  EXPECT_GE(failEach([&] {
              name = client.api.getCountryByID(86);
              EXPECT_TRUE(name == country || name.empty());
            }),
            1);
  EXPECT_EQ(name, country);
  EXPECT_GE(failEach([&] {
              name = std::string();
              client.api.getCityByID(86110105, &name);
              EXPECT_TRUE(name == city || name.empty());
            }),
            1);
  EXPECT_EQ(name, city);
}

TEST_F(LookupWithoutMemory, ASampledLineCostsNoAnswer) {
  const std::string known = "0.0.0.150";
  const std::string unknown = "0.0.0.250";
  ravel::IPInfo info;
  EXPECT_GE(failEach([&] { EXPECT_FALSE(client.api.getIPInfoFromStr(unknown, &info)); }), 1);
  IPHumanMessage message;
  ASSERT_TRUE(client.api.getIPInfoFromStr(known, &message));  // its strings have room now
  EXPECT_GE(failEach([&] {
              EXPECT_TRUE(client.api.getIPInfoFromStr(known, &message));
              EXPECT_EQ(message.m_city, city);
            }),
            1);
  EXPECT_FALSE(reportedLines().empty());
}

}  // namespace
}  // namespace tolvar_test
