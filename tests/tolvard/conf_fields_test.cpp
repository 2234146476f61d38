#include "tools/tolvard/conf_fields.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tolvar::tools::confFields;
using tolvar::tools::setConfField;

std::string faultOf(const std::string& assignment) {
  ravel::ClientConf conf;
  try {
    setConfField(conf, assignment);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

TEST(ConfFields, EveryFieldButTheVersionCanBeSet) {
  ravel::ClientConf conf;
  for (const char* text : {"statisOpen=true", "simpleLogCitys=Altenhafen, Mesa Vista",
                           "simplingRate=10000", "logBufferLimit=0", "logUnknownIp=on"})
    setConfField(conf, text);
  EXPECT_TRUE(conf.statisOpen);
  EXPECT_THAT(conf.simpleLogCitys, ElementsAre("Altenhafen", "Mesa Vista"));
  EXPECT_EQ(conf.simplingRate, 10000);
  EXPECT_EQ(conf.logBufferLimit, 0);
  EXPECT_TRUE(conf.logUnknownIp);
  EXPECT_THAT(faultOf("confVersion=3"), HasSubstr("rises"));
}

TEST(ConfFields, WhatIsShownCanBeSet) {
  ravel::ClientConf conf;
  conf.simpleLogCitys = {"a,b", "\"c\""};
  conf.simplingRate = 3;
  ravel::ClientConf copy;
  for (const auto& [name, value] : confFields(conf)) {
    if (name != "confVersion") setConfField(copy, name + "=" + value);
  }
  EXPECT_EQ(copy.simpleLogCitys, conf.simpleLogCitys);
  EXPECT_EQ(copy.simplingRate, 3);
}

TEST(ConfFields, AnEmptyListEndsSampling) {
  ravel::ClientConf conf;
  conf.simpleLogCitys = {"a"};
  setConfField(conf, "simpleLogCitys=");
  EXPECT_THAT(conf.simpleLogCitys, IsEmpty());
}

TEST(ConfFields, AFaultSaysWhatIsExpected) {
  EXPECT_THAT(faultOf("simplingRate=10001"), HasSubstr("0 to 10000"));
  EXPECT_THAT(faultOf("simplingRate=-1"), HasSubstr("0 to 10000"));
  EXPECT_THAT(faultOf("simplingRate=5x"), HasSubstr("\"5x\""));
  EXPECT_THAT(faultOf("statisOpen=yes please"), HasSubstr("true or false"));
  EXPECT_THAT(faultOf("simpleLogCitys=a,,b"), HasSubstr("names of 1 to"));
  EXPECT_THAT(faultOf("simpleLogCitys=[1]"), HasSubstr("JSON array"));
  EXPECT_THAT(faultOf("simpleLogCitys=\xff"), HasSubstr("UTF-8"));
  EXPECT_THAT(faultOf("rate=5"), HasSubstr("simplingRate"));
  EXPECT_THAT(faultOf("statisOpen"), HasSubstr("FIELD=VALUE"));
}

}  // namespace
