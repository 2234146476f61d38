#include "transport/grpc/record_codec.h"

#include <gmock/gmock.h>

#include "tolvar.pb.h"

namespace {

using tolvar::wire::WireError;
namespace v1 = tolvar::v1;

TEST(RecordCodec, ConfComesBackWithAllItsFields) {
  ravel::ClientConf conf;
  conf.statisOpen = true;
  conf.simpleLogCitys = {"Lisbon", std::string("a\0\xff", 3), ""};
  conf.simplingRate = -3;
  conf.logBufferLimit = 77;
  conf.logUnknownIp = true;
  conf.confVersion = 2147483647;
  v1::ClientConf message;
  tolvar::wire::encodeConf(conf, message);
  ravel::ClientConf back;
  back.simpleLogCitys = {"old"};
  tolvar::wire::decodeConf(message, back);
  EXPECT_TRUE(back.statisOpen);
  EXPECT_EQ(back.simpleLogCitys, conf.simpleLogCitys);
  EXPECT_EQ(back.simplingRate, -3);
  EXPECT_EQ(back.logBufferLimit, 77);
  EXPECT_TRUE(back.logUnknownIp);
  EXPECT_EQ(back.confVersion, 2147483647);
}

TEST(RecordCodec, ConfWithALongCityIsRefused) {
  v1::ClientConf message;
  message.add_simple_log_citys(std::string(tolvar::wire::kMaxNameBytes + 1, 'x'));
  ravel::ClientConf conf;
  EXPECT_THROW(tolvar::wire::decodeConf(message, conf), WireError);
}

TEST(RecordCodec, CheckRequestAndAnswerComeBack) {
  ravel::CheckReq req;
  req.contentMd5 = "0123456789abcdef0123456789abcdef";
  req.apiVersion = 20120704;
  req.confVersion = -1;
  v1::CheckRequest message;
  tolvar::wire::encodeCheckReq(req, message);
  ravel::CheckReq back;
  tolvar::wire::decodeCheckReq(message, back);
  EXPECT_EQ(back.contentMd5, req.contentMd5);
  EXPECT_EQ(back.apiVersion, 20120704u);
  EXPECT_EQ(back.confVersion, -1);

  ravel::CheckInfo info;
  info.isNetFlow = -128;
  info.isReset = 127;
  info.updateConf = true;
  v1::CheckAnswer answer;
  tolvar::wire::encodeCheckInfo(info, answer);
  ravel::CheckInfo read;
  tolvar::wire::decodeCheckInfo(answer, read);
  EXPECT_EQ(read.isNetFlow, -128);
  EXPECT_EQ(read.isReset, 127);
  EXPECT_TRUE(read.updateConf);
}

TEST(RecordCodec, CheckAnswerThatFitsNoByteIsRefused) {
  v1::CheckAnswer answer;
  answer.set_is_reset(256);  // would read as 0, "nothing changed", if it were cut
  ravel::CheckInfo info;
  EXPECT_THROW(tolvar::wire::decodeCheckInfo(answer, info), WireError);
}

TEST(RecordCodec, ReportsComeBack) {
  ravel::ReportCount count;
  count.info.type = ravel::EOperator;
  count.info.name = "network";
  count.count = 0xffffffffffffffffu;
  v1::ReportCountsRequest counts;
  tolvar::wire::encodeReportCounts({count}, 9, counts);
  const auto back = tolvar::wire::decodeReportCounts(counts);
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back[0].info.type, ravel::EOperator);
  EXPECT_EQ(back[0].info.name, "network");
  EXPECT_EQ(back[0].count, count.count);
  EXPECT_EQ(counts.dropped(), 9u);

  v1::ReportLinesRequest lines;
  tolvar::wire::encodeReportLines({"one", "two"}, 4, lines);
  EXPECT_EQ(tolvar::wire::decodeReportLines(lines), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(lines.dropped(), 4u);
}

TEST(RecordCodec, UnknownReportTypeIsRefused) {
  v1::ReportCountsRequest counts;
  counts.add_counts()->set_type(static_cast<v1::ReportType>(4));
  EXPECT_THROW(tolvar::wire::decodeReportCounts(counts), WireError);
}

TEST(RecordCodec, LongLineIsRefused) {
  v1::ReportLinesRequest lines;
  EXPECT_THROW(tolvar::wire::encodeReportLines(
                   {std::string(tolvar::wire::kMaxReportLineBytes + 1, 'x')}, 0, lines),
               WireError);
}

}  // namespace
