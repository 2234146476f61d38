// Names of ids.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/src/lookup_fixture.h"

namespace {

using namespace tolvar_test;
using testing::ElementsAre;
using testing::IsEmpty;

class Names : public LookupTest {
 protected:
  Names() {
    for (std::uint64_t k = 0; k < 8; ++k) {
      names[k][7] = "seven of " + std::to_string(k);
      names[k][0xFFFFFFFFu] = "last of " + std::to_string(k);
    }
    publish();
  }

  TolvarAPI& api() { return client.api; }
};

TEST_F(Names, EachLookupReadsItsOwnTable) {
  EXPECT_EQ(api().getCountryByID(7), "seven of 0");
  EXPECT_EQ(api().getProvinceByID(7), "seven of 1");
  EXPECT_EQ(api().getCityByID(7), "seven of 2");
  EXPECT_EQ(api().getDistrictByID(7), "seven of 3");
  EXPECT_EQ(api().getExtendByID(7), "seven of 4");
  EXPECT_EQ(api().getOperByID(7), "seven of 5");
  EXPECT_EQ(api().getNettypeByID(7), "seven of 6");
  EXPECT_EQ(api().getApnByID(7), "seven of 7");
}

TEST_F(Names, EachWritingFormReadsItsOwnTable) {
  std::string out;
  api().getCountryByID(7, &out);
  EXPECT_EQ(out, "seven of 0");
  api().getProvinceByID(7, &out);
  EXPECT_EQ(out, "seven of 1");
  api().getCityByID(7, &out);
  EXPECT_EQ(out, "seven of 2");
  api().getDistrictByID(7, &out);
  EXPECT_EQ(out, "seven of 3");
  api().getExtendByID(7, &out);
  EXPECT_EQ(out, "seven of 4");
  api().getOperByID(7, &out);
  EXPECT_EQ(out, "seven of 5");
  api().getNettypeByID(7, &out);
  EXPECT_EQ(out, "seven of 6");
  api().getApnByID(7, &out);
  EXPECT_EQ(out, "seven of 7");
  api().getFlableByID(7, &out);
  EXPECT_EQ(out, "FROM_JN_HVM");
}

TEST_F(Names, IdsAreWidenedWithoutSign) {
  EXPECT_EQ(api().getCountryByID(0xFFFFFFFFu), "last of 0");
  EXPECT_EQ(api().getApnByID(0xFFFFFFFFu), "last of 7");
}

TEST_F(Names, UnknownOperatorIsEmptyAndStillReported) {
  configure([](ravel::ClientConf& conf) { conf.statisOpen = true; });
  EXPECT_EQ(api().getOperByID(12345), "");
  EXPECT_THAT(reportedCounts(), ElementsAre("3  1"));
}

TEST_F(Names, FourReturningFormsReportAndNoOthers) {
  configure([](ravel::ClientConf& conf) { conf.statisOpen = true; });
  api().getCountryByID(7);
  api().getProvinceByID(7);
  api().getCityByID(7);
  api().getCityByID(7);
  api().getDistrictByID(7);
  api().getExtendByID(7);
  api().getOperByID(7);
  api().getNettypeByID(7);
  api().getApnByID(7);
  api().getFlableByID(7);
  EXPECT_THAT(reportedCounts(),
              ElementsAre("0 seven of 0 1", "1 seven of 1 1", "2 seven of 2 2", "3 seven of 5 1"));
}

TEST_F(Names, WritingFormsReportNothing) {
  configure([](ravel::ClientConf& conf) { conf.statisOpen = true; });
  std::string out;
  api().getCountryByID(7, &out);
  api().getProvinceByID(7, &out);
  api().getCityByID(7, &out);
  api().getOperByID(7, &out);
  EXPECT_THAT(reportedCounts(), IsEmpty());
}

TEST_F(Names, TypesOutside0To7AreEmpty) {
  for (const int type : {8, -1, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(client.access.GetCodeInfoById(type, 7), "") << type;
    std::string out = "from before";
    client.access.GetCodeInfoById(type, 7, &out);
    EXPECT_EQ(out, "") << type;
  }
}

TEST_F(Names, DistrictsAreLookedUpWithAll64Bits) {
  const std::uint64_t high = (std::uint64_t{1} << 32) + 7;
  names[3][high] = "beyond 32 bits";
  names[3][86110105001] = "Chaoyang";
  names[3][UINT64_MAX] = "the last";
  publish();
  EXPECT_EQ(api().getDistrictByID(high), "beyond 32 bits");
  EXPECT_EQ(api().getDistrictByID(7), "seven of 3");
  EXPECT_EQ(api().getDistrictByID(86110105001), "Chaoyang");
  EXPECT_EQ(api().getDistrictByID(static_cast<std::uint32_t>(86110105001)), "");
  EXPECT_EQ(api().getDistrictByID(UINT64_MAX), "the last");
}

TEST_F(Names, LabelsAreFixed) {
  const char* const labels[] = {"FROM_QK",    "FROM_RTL", "FROM_RTL_HMV", "FROM_PLEX1",
                                "FROM_PLEX2", "FROM_JN",  "FROM_JN_HVM",  "FROM_ORB",
                                "FROM_YAT",   "FROM_KV",  "RTL",          "JN",
                                "TZ",         "KV",       "PLEX"};
  for (std::uint32_t id = 1; id <= 15; ++id) EXPECT_EQ(api().getFlableByID(id), labels[id - 1]);
  EXPECT_EQ(api().getFlableByID(15), "PLEX");
}

TEST_F(Names, LabelsOutside1To15AreEmpty) {
  EXPECT_EQ(api().getFlableByID(0), "");
  EXPECT_EQ(api().getFlableByID(16), "");
  EXPECT_EQ(api().getFlableByID(0xFFFFFFFFu), "");
  std::string out = "from before";
  api().getFlableByID(16, &out);
  EXPECT_EQ(out, "");
}

TEST_F(Names, WritingFormOfAnUnknownIdEmptiesTheString) {
  std::string out = "from before";
  api().getCityByID(99, &out);
  EXPECT_EQ(out, "");
}

}  // namespace
