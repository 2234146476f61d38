#include <gmock/gmock.h>

#include <limits>

#include "tests/transport_grpc/test_tables.h"
#include "tolvar.pb.h"
#include "transport/grpc/page_codec.h"

namespace {

using ravel::CodeInfo;
using testing::HasSubstr;
using tolvar::v1::Codes;
using tolvar::wire::WireError;

CodeInfo code(std::int32_t type, std::int64_t id, std::string content) {
  CodeInfo info;
  info.codeType = type;
  info.ID = id;
  info.content = std::move(content);
  return info;
}

std::vector<std::string> texts(const std::vector<CodeInfo>& codes) {
  std::vector<std::string> all;
  for (const CodeInfo& c : codes)
    all.push_back(std::to_string(c.codeType) + " " + std::to_string(c.ID) + " " + c.content);
  return all;
}

std::vector<CodeInfo> roundTrip(const std::vector<CodeInfo>& codes) {
  Codes sent;
  tolvar::wire::encodeCodes(codes, sent);
  Codes received;
  EXPECT_TRUE(received.ParseFromString(sent.SerializeAsString()));
  std::vector<CodeInfo> back{code(1, 1, "left from before")};
  tolvar::wire::decodeCodes(received, back);
  return back;
}

std::string refusal(const Codes& message) {
  std::vector<CodeInfo> codes;
  try {
    tolvar::wire::decodeCodes(message, codes);
  } catch (const WireError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(CodeCodec, RandomTablesComeBackInTheirOrder) {
  std::mt19937_64 random(5);
  for (int round = 0; round < 200; ++round) {
    std::vector<CodeInfo> codes;
    for (std::uint64_t i = random() % 100; i > 0; --i) {
      std::string name(random() % 40, '\0');
      for (char& c : name) c = static_cast<char>(random());
      codes.push_back(code(static_cast<std::int32_t>(random() % 8) + 1,
                           static_cast<std::int64_t>(random()), std::move(name)));
    }
    EXPECT_EQ(texts(roundTrip(codes)), texts(codes));
  }
}

TEST(CodeCodec, ExtremeIdsSurvive) {
  const std::vector<CodeInfo> codes{code(1, std::numeric_limits<std::int64_t>::max(), "a"),
                                    code(1, std::numeric_limits<std::int64_t>::min(), "b"),
                                    code(1, 0, "")};
  EXPECT_EQ(texts(roundTrip(codes)), texts(codes));
}

TEST(CodeCodec, LiesAreRefused) {
  Codes message;
  tolvar::wire::encodeCodes(tolvar_test::makeCodes(), message);
  ASSERT_EQ(refusal(message), "accepted");

  Codes total = message;
  total.set_entries(15);
  EXPECT_THAT(refusal(total), HasSubstr("announce 15 entries and hold 16"));

  Codes unequal = message;
  unequal.mutable_run(3)->add_content("one more");
  EXPECT_THAT(refusal(unequal), HasSubstr("2 ids and 3 names"));

  Codes longName = message;
  longName.mutable_run(0)->set_content(0, std::string(tolvar::wire::kMaxNameBytes + 1, 'x'));
  EXPECT_THAT(refusal(longName), HasSubstr("has 1025 bytes"));
}

TEST(CodeCodec, RunsWithoutEntriesAreRefused) {
  Codes message;
  tolvar::wire::encodeCodes(tolvar_test::makeCodes(), message);
  message.add_run()->set_code_type(8);
  EXPECT_EQ(refusal(message), "a run of code type 8 has no entries");
}

TEST(CodeCodec, TypesThatAreNoneAreRefused) {
  for (const std::int32_t type : {0, 9, -1}) {
    Codes message;
    message.set_entries(1);
    message.add_run()->set_code_type(type);
    message.mutable_run(0)->add_id_delta(1);
    message.mutable_run(0)->add_content("a name");
    EXPECT_THAT(refusal(message), HasSubstr("code type " + std::to_string(type) + " is not in"));
    EXPECT_THROW(tolvar::wire::encodeCodes(std::vector{code(type, 1, "a name")}, message),
                 WireError);
  }
}

TEST(CodeCodec, EncodingRefusesMoreRunsThanAreAccepted) {
  std::vector<CodeInfo> codes;
  for (std::size_t i = 0; i <= tolvar::wire::kMaxCodeRuns; ++i)
    codes.push_back(code(i % 2 == 0 ? 1 : 2, 1, ""));
  Codes message;
  EXPECT_THROW(tolvar::wire::encodeCodes(codes, message), WireError);
}

TEST(CodeCodec, EncodingRefusesLongNamesAndNamesTheEntry) {
  Codes message;
  try {
    tolvar::wire::encodeCodes(std::vector{code(3, 42, std::string(2000, 'x'))}, message);
    FAIL() << "a name of 2000 bytes was encoded";
  } catch (const WireError& error) {
    EXPECT_THAT(error.what(), HasSubstr("code 42 of type 3"));
  }
}

}  // namespace
