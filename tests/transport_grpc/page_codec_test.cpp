#include "transport/grpc/page_codec.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>

#include "tests/transport_grpc/test_tables.h"
#include "tolvar.pb.h"

namespace {

using ravel::IPProperty;
using testing::HasSubstr;
using tolvar::v1::Page;
using tolvar::wire::PageQuery;
using tolvar::wire::WireError;
using tolvar_test::describe;

constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
constexpr PageQuery kFromStart{0, 0, 50000};

std::uint64_t cursorOf(const IPProperty& range) {
  return std::uint64_t{range.timesTamp} << 32 | range.sequence;
}

/// The first three ranges of a table that ends at (7, 10).
Page honestPage() {
  std::vector<IPProperty> ranges = tolvar_test::makeRanges(3);
  for (std::uint32_t i = 0; i < 3; ++i) {
    ranges[i].timesTamp = 7;
    ranges[i].sequence = i + 1;
  }
  Page page;
  tolvar::wire::encodePage({std::uint64_t{7} << 32 | 10, 1}, ranges, page);
  return page;
}

std::string refusal(const Page& page, const PageQuery& query = kFromStart) {
  ravel::downloadInfo info;
  try {
    tolvar::wire::decodePage(page, query, info);
  } catch (const WireError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(PageCodec, RandomPagesComeBackAsTheyWere) {
  std::mt19937_64 random(20120704);
  for (int round = 0; round < 300; ++round) {
    const auto ranges = tolvar_test::randomPage(random, random() % 200);
    const std::uint64_t end = ranges.empty() ? 0 : cursorOf(ranges.back()) + random() % 3;
    Page sent;
    tolvar::wire::encodePage({end, static_cast<std::int8_t>(round % 2)}, ranges, sent);
    Page received;
    ASSERT_TRUE(received.ParseFromString(sent.SerializeAsString()));
    ravel::downloadInfo info;
    tolvar::wire::decodePage(received, kFromStart, info);
    EXPECT_EQ(describe(info.IPContent), describe(ranges));
    EXPECT_EQ(std::uint64_t{info.highMaxIndex} << 32 | info.lowMaxIndex, end);
    EXPECT_EQ(info.isdownloadReset, round % 2);
  }
}

TEST(PageCodec, AnyBytesAreEitherRefusedOrAWellFormedPage) {
  std::mt19937_64 random(7);
  const std::string honest = honestPage().SerializeAsString();
  int refused = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string bytes = honest;
    for (std::uint64_t change = 0; change <= random() % 3; ++change)
      bytes[random() % bytes.size()] = static_cast<char>(random());
    Page page;
    ravel::downloadInfo info;
    try {
      if (!page.ParseFromString(bytes)) throw WireError("not a message");
      tolvar::wire::decodePage(page, kFromStart, info);
    } catch (const WireError&) {
      ++refused;
      continue;
    }
    std::uint64_t last = 0;
    for (const IPProperty& range : info.IPContent) {
      ASSERT_LE(range.startIP, range.endIP);
      ASSERT_LT(last, cursorOf(range));
      last = cursorOf(range);
    }
    ASSERT_LE(last, std::uint64_t{info.highMaxIndex} << 32 | info.lowMaxIndex);
  }
  EXPECT_GT(refused, 1000);
  EXPECT_LT(refused, 20000);
}

TEST(PageCodec, ExtremesOfEveryFieldSurvive) {
  IPProperty range;
  range.timesTamp = kMax;
  range.sequence = kMax;
  range.endIP = kMax;
  range.place = std::numeric_limits<std::int64_t>::min();
  range.extend = range.oper = range.nettype = range.apn = range.flable = kMax;
  Page page;
  tolvar::wire::encodePage({std::numeric_limits<std::uint64_t>::max(), -128}, {&range, 1}, page);
  ravel::downloadInfo info;
  tolvar::wire::decodePage(page, kFromStart, info);
  ASSERT_EQ(info.IPContent.size(), 1u);
  EXPECT_EQ(describe(info.IPContent[0]), describe(range));
  EXPECT_EQ(info.isdownloadReset, -128);
}

TEST(PageCodec, ColumnsOfZerosTakeNoSpace) {
  const Page page = honestPage();
  EXPECT_EQ(page.extend_size(), 0);
  EXPECT_EQ(page.oper_size(), 3);
}

TEST(PageCodec, LongestRecordFitsTheReceiveLimitAtFullSize) {
  std::vector<IPProperty> ranges(2000);
  for (std::uint32_t i = 0; i < ranges.size(); ++i) {
    IPProperty& range = ranges[i];
    range.timesTamp = 0x80000000u + i * 1000000;
    range.sequence = i % 2 == 0 ? kMax : 0;
    range.startIP = i % 2 == 0 ? 0x10000000u : 0;
    range.endIP = kMax;
    range.place = -1;
    range.extend = range.oper = range.nettype = range.apn = range.flable = kMax;
  }
  Page page;
  tolvar::wire::encodePage({std::numeric_limits<std::uint64_t>::max(), 1}, ranges, page);
  const double each = static_cast<double>(page.ByteSizeLong()) / static_cast<double>(ranges.size());
  EXPECT_LT(each * tolvar::wire::kMaxPageRecords, tolvar::wire::MAX_RECV_BUFFER);
}

TEST(PageCodec, EncodingRefusesWhatCannotBeTold) {
  Page page;
  IPProperty reversed;
  reversed.startIP = 2;
  reversed.endIP = 1;
  EXPECT_THROW(tolvar::wire::encodePage({1, 1}, {&reversed, 1}, page), WireError);
  const std::vector<IPProperty> many(tolvar::wire::kMaxPageRecords + 1);
  EXPECT_THROW(tolvar::wire::encodePage({1, 1}, many, page), WireError);
}

struct Lie {
  const char* name;
  std::function<void(Page&)> tell;
  const char* refusal;
};

class LyingPage : public testing::TestWithParam<Lie> {};

TEST_P(LyingPage, IsRefusedWithItsReason) {
  Page page = honestPage();
  ASSERT_EQ(refusal(page), "accepted");
  GetParam().tell(page);
  EXPECT_THAT(refusal(page), HasSubstr(GetParam().refusal));
}

INSTANTIATE_TEST_SUITE_P(
    Lies, LyingPage,
    testing::Values(
        Lie{"MoreRecordsThanValues", [](Page& p) { p.set_records(4); },
            "has 3 values for 4 records"},
        Lie{"FewerRecordsThanValues", [](Page& p) { p.set_records(2); },
            "has 3 values for 2 records"},
        Lie{"NoRecordsButValues", [](Page& p) { p.set_records(0); }, "has 3 values for 0 records"},
        Lie{"FourBillionRecords", [](Page& p) { p.set_records(kMax); },
            "announces 4294967295 records"},
        Lie{"RecordsWithoutCursors",
            [](Page& p) {
              p.Clear();
              p.set_records(50000);
            },
            "without cursors"},
        Lie{"ShortPlaceColumn", [](Page& p) { p.mutable_place()->RemoveLast(); }, "column place"},
        Lie{"LongOperColumn", [](Page& p) { p.add_oper(1); }, "column oper"},
        Lie{"StartBelowZero", [](Page& p) { p.set_start_ip_delta(0, -1); },
            "start_ip_delta leaves"},
        Lie{"StartAboveTheLastAddress",
            [](Page& p) { p.set_start_ip_delta(2, std::int64_t{kMax} + 1); },
            "start_ip_delta leaves"},
        Lie{"SumWouldOverflow",
            [](Page& p) { p.set_start_ip_delta(2, std::numeric_limits<std::int64_t>::max()); },
            "start_ip_delta leaves"},
        Lie{"EndBehindTheLastAddress", [](Page& p) { p.set_end_ip_offset(2, kMax); },
            "ends behind 255.255.255.255"},
        Lie{"CursorStandsStill", [](Page& p) { p.set_sequence_delta(1, 0); }, "does not follow"},
        Lie{"CursorGoesBack", [](Page& p) { p.set_sequence_delta(1, -1); }, "does not follow"},
        Lie{"CursorPassesTheEnd", [](Page& p) { p.set_low_max_index(2); }, "passes the end index"},
        Lie{"ResetOutOfRange", [](Page& p) { p.set_is_download_reset(128); }, "is_download_reset"},
        Lie{"EmptyInTheMiddle",
            [](Page& p) {
              p.Clear();
              p.set_high_max_index(7);
              p.set_low_max_index(10);
            },
            "the page is empty"}),
    [](const auto& lie) { return lie.param.name; });

TEST(PageCodec, AnswerMustFitTheQuestion) {
  Page page = honestPage();
  EXPECT_THAT(refusal(page, {0, 0, 2}), HasSubstr("at most 2 were asked for"));
  EXPECT_EQ(refusal(page, {9, 9, 3}), "accepted");  // a reset restarts from any cursor
  page.set_is_download_reset(0);
  EXPECT_THAT(refusal(page, {7, 1, 50000}), HasSubstr("cursor 7:1 does not follow 7:1"));
  EXPECT_EQ(refusal(page, {7, 0, 50000}), "accepted");
}

TEST(PageCodec, EmptyPageEndsADownloadOrTellsOfAnEmptyTable) {
  Page page;
  page.set_high_max_index(7);
  page.set_low_max_index(10);
  EXPECT_EQ(refusal(page, {7, 10, 50000}), "accepted");
  EXPECT_THAT(refusal(page, {7, 9, 50000}), HasSubstr("from 7:9 to 7:10"));
  page.set_is_download_reset(1);
  EXPECT_THAT(refusal(page, {7, 8, 50000}), HasSubstr("the page is empty"));
  page.set_low_max_index(0);
  EXPECT_EQ(refusal(page), "accepted");
}

}  // namespace
