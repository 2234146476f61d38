#include "tools/tolvar/answer_format.h"

#include <gtest/gtest.h>

#include "tools/tolvar/address_class.h"

using tolvar::tools::Answer;
using tolvar::tools::formatJson;
using tolvar::tools::formatLine;
using tolvar::tools::specialAddressKind;

namespace {

Answer found() {
  Answer answer;
  answer.text = "8.8.8.8";
  answer.ip = 0x08080808;
  answer.kind = Answer::Kind::Found;
  answer.ids.country = 276;
  answer.ids.province = 276001;
  answer.ids.city = 276001000;
  answer.ids.district = 276001000000;
  answer.names.m_country = "Germany";
  answer.names.m_province = "Nordmark";
  return answer;
}

TEST(AnswerLine, NamesThePlaceFromTheCountryInwardsAndLeavesOpenLevelsOut) {
  EXPECT_EQ(formatLine(found()), "8.8.8.8          Germany / Nordmark");
}

TEST(AnswerLine, ShowsWhatElseIsKnown) {
  Answer answer = found();
  answer.names.m_oper = "Rheinfunk";
  answer.ids.oper = 3;
  answer.ids.nettype = 7;
  EXPECT_EQ(formatLine(answer),
            "8.8.8.8          Germany / Nordmark  operator=Rheinfunk  network=#7");
}

TEST(AnswerLine, ShowsTheNumberOfACodeWithoutAName) {
  Answer answer = found();
  answer.names = {};
  EXPECT_EQ(formatLine(answer), "8.8.8.8          #276 / #276001");
}

TEST(AnswerLine, ControlCharactersInNamesDoNotReachTheTerminal) {
  Answer answer = found();
  answer.names.m_country = "Ger\x1b[31mmany\n";
  EXPECT_EQ(formatLine(answer), "8.8.8.8          Ger?[31mmany? / Nordmark");
}

TEST(AnswerLine, SaysWhyThereIsNoAnswer) {
  Answer answer;
  answer.text = "1.2.3";
  EXPECT_EQ(formatLine(answer),
            "1.2.3            is not an IPv4 address: expected four numbers from 0 to 255, such as "
            "192.0.2.17");
  answer.kind = Answer::Kind::NotFound;
  answer.text = "9.9.9.9";
  answer.ip = 0x09090909;
  EXPECT_EQ(formatLine(answer), "9.9.9.9          not found: no range of the table holds it");
  answer.text = "10.1.2.3";
  answer.ip = 0x0A010203;
  EXPECT_EQ(formatLine(answer), "10.1.2.3         not found: a private address (RFC 1918)");
}

TEST(AnswerLine, APrivateAddressThatTheTableHoldsIsAnsweredAndMarked) {
  Answer answer = found();
  answer.text = "192.168.0.1";
  answer.ip = 0xC0A80001;
  EXPECT_EQ(formatLine(answer),
            "192.168.0.1      Germany / Nordmark  (a private address (RFC 1918))");
}

TEST(AnswerJson, IsOneObjectWithIdsAndNames) {
  EXPECT_EQ(formatJson(found()),
            R"({"address":"8.8.8.8","valid":true,"found":true,)"
            R"("country":{"id":276,"name":"Germany"},"province":{"id":276001,"name":"Nordmark"},)"
            R"("city":{"id":276001000,"name":""},"district":{"id":276001000000,"name":""},)"
            R"("extend":{"id":0,"name":""},"oper":{"id":0,"name":""},)"
            R"("nettype":{"id":0,"name":""},"apn":{"id":0,"name":""},)"
            R"("flable":{"id":0,"name":""}})");
}

TEST(AnswerJson, ANameThatIsNotUtf8GivesValidJson) {
  Answer answer = found();
  answer.names.m_country = "\xff";
  EXPECT_NE(formatJson(answer).find("\"name\":\"\xEF\xBF\xBD\""), std::string::npos);
}

TEST(SpecialAddresses, BlocksEndWhereTheRegistrySays) {
  EXPECT_STREQ(specialAddressKind(0xAC100000), "a private address (RFC 1918)");
  EXPECT_STREQ(specialAddressKind(0xAC1FFFFF), "a private address (RFC 1918)");
  EXPECT_EQ(specialAddressKind(0xAC200000), nullptr);
  EXPECT_EQ(specialAddressKind(0xAC0FFFFF), nullptr);
  EXPECT_STREQ(specialAddressKind(0x64400000), "a carrier-grade NAT address (RFC 6598)");
  EXPECT_EQ(specialAddressKind(0x64800000), nullptr);
  EXPECT_STREQ(specialAddressKind(0xFFFFFFFF), "the limited broadcast address");
  EXPECT_STREQ(specialAddressKind(0xFFFFFFFE), "a reserved address (RFC 1112)");
  EXPECT_EQ(specialAddressKind(0x08080808), nullptr);
}

}  // namespace
