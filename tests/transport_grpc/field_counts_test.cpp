#include "transport/grpc/field_counts.h"

#include <gmock/gmock.h>

#include <random>

#include "tolvar.pb.h"
#include "transport/grpc/message_parser.h"

namespace {

using testing::HasSubstr;
using tolvar::wire::FieldLimit;
using tolvar::wire::MessageLimits;
using tolvar::wire::WireError;
namespace v1 = tolvar::v1;
namespace wire = tolvar::wire;

using namespace std::string_literals;

constexpr FieldLimit kInside[] = {{2, "numbers", 3, FieldLimit::Content::Numbers}, {3, "texts", 3}};
constexpr FieldLimit kFields[] = {{1, "names", 2},
                                  {2, "parts", 2, FieldLimit::Content::Message, kInside}};
constexpr MessageLimits kLimits{kFields, 2};

std::span<const std::uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

template <class Check>
std::string refusalOf(Check check) {
  try {
    check();
  } catch (const WireError& error) {
    return error.what();
  }
  return "accepted";
}

std::string refusal(const std::string& message) {
  bool isWhole = true;
  const std::string refused =
      refusalOf([&] { isWhole = wire::checkFieldCounts(bytesOf(message), kLimits); });
  return isWhole ? refused : "no message";
}

/// What is said of bytes that are to be a `Message`.
template <class Message>
std::string parsed(const std::string& bytes) {
  Message message;
  return refusalOf([&] { wire::parseBounded(bytesOf(bytes), message); });
}

std::string repeated(const std::string& field, std::size_t times) {
  std::string all;
  all.reserve(field.size() * times);
  while (times-- != 0) all += field;
  return all;
}

/// A field with a length, of one of the first 15 numbers.
std::string field(int number, const std::string& content) {
  std::string all(1, static_cast<char>(number << 3 | 2));
  for (std::size_t size = content.size();; size >>= 7) {
    all += static_cast<char>((size & 0x7f) | (size > 0x7f ? 0x80 : 0));
    if (size <= 0x7f) return all + content;
  }
}

TEST(FieldCounts, FieldsAreCountedUpToTheirLimit) {
  EXPECT_EQ(refusal(""), "accepted");
  EXPECT_EQ(refusal("\x0a\x00\x0a\x01x"s), "accepted");
  EXPECT_EQ(refusal("\x0a\x00\x0a\x00\x0a\x00"s), "there are more than 2 of names");
  EXPECT_EQ(refusal("\x0a\x00\x08\x01\x0d\x01\x02\x03\x04"s), "there are more than 2 of names")
      << "a parser keeps a field of another wire type too";
}

TEST(FieldCounts, SubMessagesCountTogether) {
  const std::string two = field(2, "\x1a\x00\x1a\x00"s);
  EXPECT_EQ(refusal(two), "accepted");
  EXPECT_EQ(refusal(two + two), "there are more than 3 of texts");
  EXPECT_EQ(refusal("\x12\x00\x12\x00\x12\x00"s), "there are more than 2 of parts");
}

TEST(FieldCounts, PackedNumbersCountOneByOne) {
  EXPECT_EQ(refusal(field(2, "\x12\x03\x01\x80\x01"s)), "accepted");
  EXPECT_EQ(refusal(field(2, "\x12\x04\x01\x02\x03\x04"s)), "there are more than 3 of numbers");
  EXPECT_EQ(refusal(field(2, "\x10\x01\x10\x02\x10\x03\x12\x01\x04"s)),
            "there are more than 3 of numbers");
}

TEST(FieldCounts, AllOthersShareALimit) {
  EXPECT_EQ(refusal("\x7a\x00\x78\x05"s), "accepted");
  EXPECT_EQ(refusal("\x7a\x00\x78\x05\x79\x01\x02\x03\x04\x05\x06\x07\x08"s),
            "there are more than 2 other fields");
  EXPECT_EQ(refusal("\x7a\x00\x78\x05"s + field(2, "\x20\x01"s)),
            "there are more than 2 other fields");
  EXPECT_EQ(refusal("\x7b\x7c\x7b\x7c"s), "there are more than 2 other fields") << "groups";
}

TEST(FieldCounts, BytesThatAreNoMessageAreRefused) {
  for (const std::string& bytes : {"\xff"s, "\x08"s, "\x0a\x05x"s, "\x79\x01"s, "\x7d\x01"s,
                                   "\x7e"s, "\x08"s + std::string(10, '\xff'), "\x12\x02\x1a\x05"s})
    EXPECT_EQ(refusal(bytes), "no message");
}

TEST(FieldCounts, TagsMayBeLongerThanTheyNeed) {
  // All of them the field "names" to a parser, which cuts tags to 32 bits.
  for (const std::string& tag : {"\x8a\x00"s, "\x8a\x80\x80\x80\x00"s, "\x8a\x80\x80\x80\x10"s})
    EXPECT_EQ(refusal(repeated(tag + "\0"s, 3)), "there are more than 2 of names");
}

/// Counts as the parser sees them.
TEST(FieldCounts, AgreeWithTheParser) {
  std::mt19937_64 random(8);
  const std::string pieces[] = {"\x0a\x00"s,     "\x0a\x01x"s,        "\x8a\x00\x00"s, "\x10\x05"s,
                                "\x7a\x01\x0a"s, "\x12\x02\x0a\x00"s, "\x0a"s,         "\x00"s};
  int seen = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string bytes;
    for (std::uint64_t i = random() % 8; i > 0; --i) bytes += pieces[random() % std::size(pieces)];
    v1::ReportLinesRequest message;
    if (!message.ParseFromString(bytes)) continue;
    ++seen;
    const auto lines = static_cast<std::size_t>(message.lines_size());
    const FieldLimit enough[] = {{1, "lines", lines}};
    EXPECT_EQ(refusalOf([&] {
                wire::checkFieldCounts(bytesOf(bytes), {enough, 100});
              }),
              "accepted");
    if (lines == 0) continue;
    const FieldLimit tooFew[] = {{1, "lines", lines - 1}};
    EXPECT_THAT(refusalOf([&] {
                  wire::checkFieldCounts(bytesOf(bytes), {tooFew, 100});
                }),
                HasSubstr("of lines"));
  }
  EXPECT_GT(seen, 1000);
}

// Malformed messages that did harm: each of their elements took a parser dozens of bytes.

TEST(FieldCounts, CodesOfEmptyRuns) {
  EXPECT_EQ(parsed<v1::Codes>(repeated("\x12\x00"s, wire::kMaxCodeRuns + 1)),
            "there are more than 65536 of run");
}

TEST(FieldCounts, CodesOfOneRunOfEmptyNames) {
  const std::string names = repeated("\x1a\x00"s, wire::kMaxCodeEntries + 1);
  EXPECT_EQ(parsed<v1::Codes>(field(2, names)), "there are more than 1048576 of content");
  const std::string ids(wire::kMaxCodeEntries + 1, '\2');
  EXPECT_EQ(parsed<v1::Codes>(field(2, field(2, ids))), "there are more than 1048576 of id_delta");
}

TEST(FieldCounts, ConfOfEmptyCitys) {
  EXPECT_EQ(parsed<v1::ClientConf>(repeated("\x12\x00"s, wire::kMaxConfCitys)), "accepted");
  EXPECT_EQ(parsed<v1::ClientConf>(repeated("\x12\x00"s, wire::kMaxConfCitys + 1)),
            "there are more than 65536 of simple_log_citys");
}

TEST(FieldCounts, ReportsOfEmptyEntries) {
  EXPECT_EQ(parsed<v1::ReportLinesRequest>(repeated("\x0a\x00"s, wire::kMaxReportLines + 1)),
            "there are more than 131072 of lines");
  EXPECT_EQ(parsed<v1::ReportCountsRequest>(repeated("\x0a\x00"s, wire::kMaxReportCounts + 1)),
            "there are more than 131072 of counts");
}

TEST(FieldCounts, MessagesOfUnknownFields) {
  const std::string unknown = repeated("\x7a\x00"s, wire::kMaxOtherFields + 1);
  const std::string refused = "there are more than 1024 other fields";
  EXPECT_EQ(parsed<v1::GetConfRequest>(unknown), refused);
  EXPECT_EQ(parsed<v1::CheckRequest>(unknown), refused);
  EXPECT_EQ(parsed<v1::CheckAnswer>(unknown), refused);
  EXPECT_EQ(parsed<v1::Page>(unknown), refused);
  EXPECT_EQ(parsed<v1::GetConfRequest>(repeated("\x7a\x00"s, wire::kMaxOtherFields)), "accepted");
}

TEST(FieldCounts, PageOfManyUnpackedValues) {
  EXPECT_EQ(parsed<v1::Page>(repeated("\x28\x02"s, wire::kMaxPageRecords + 1)),
            "there are more than 262144 of times_tamp_delta");
}

/// The largest messages that there may be pass, whatever their entries hold.
TEST(FieldCounts, FullMessagesPass) {
  v1::ReportCountsRequest counts;
  for (std::size_t i = 0; i < wire::kMaxReportCounts; ++i) {
    v1::ReportCount& count = *counts.add_counts();
    count.set_type(v1::REPORT_TYPE_CITY);
    count.set_name("n");
    count.set_count(1);
  }
  counts.set_dropped(3);
  EXPECT_EQ(parsed<v1::ReportCountsRequest>(counts.SerializeAsString()), "accepted");

  std::vector<ravel::CodeInfo> entries(wire::kMaxCodeRuns);
  for (std::size_t i = 0; i < entries.size(); ++i) entries[i].codeType = 1 + i % 2;
  v1::Codes codes;
  wire::encodeCodes(entries, codes);
  ASSERT_EQ(static_cast<std::size_t>(codes.run_size()), wire::kMaxCodeRuns);
  EXPECT_EQ(parsed<v1::Codes>(codes.SerializeAsString()), "accepted");
}

}  // namespace
