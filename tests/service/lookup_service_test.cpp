#include "service/lookup_service.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>

#include "tests/support/manual_clock.h"
#include "tests/support/report_count.h"

namespace tolvar::service {
namespace {

constexpr std::uint32_t kNow = 1700000000;

TableData tableOf(std::uint32_t size, std::int64_t place = 0) {
  TableData data;
  for (std::uint32_t i = 0; i < size; ++i) {
    ravel::IPProperty& range = data.ranges.emplace_back();
    range.startIP = i * 10;
    range.endIP = i * 10 + 9;
    range.place = place;
  }
  ravel::CodeInfo& code = data.codes.emplace_back();
  code.codeType = 1;
  code.ID = place;
  code.content = "place";
  return data;
}

ravel::CheckReq request(const std::string& digest, std::int32_t confVersion = 1) {
  ravel::CheckReq req;
  req.contentMd5 = digest;
  req.confVersion = confVersion;
  return req;
}

class LookupServiceTest : public testing::Test {
 protected:
  tolvar_test::ManualClock clock{false, kNow};
  LookupService service{clock};
};

TEST_F(LookupServiceTest, WithoutATableThereIsNothingToDo) {
  EXPECT_EQ(service.current(), nullptr);
  const ravel::CheckInfo info = service.checkChangeAdv(request("0"));
  EXPECT_EQ(info.isReset, 0);
  EXPECT_EQ(info.isNetFlow, 0);
  EXPECT_FALSE(info.updateConf);
}

TEST_F(LookupServiceTest, WithoutATableDownloadsFail) {
  EXPECT_THROW(service.totalDownloadIPInfo(0, 0, 10), NoTableError);
  EXPECT_THROW(service.FirstTotalDownloadIPInfo(0, 0, 10), NoTableError);
  EXPECT_THROW(service.totalDownloadCode(), NoTableError);
}

TEST_F(LookupServiceTest, TellsAClientWithAnotherDigestToReset) {
  const auto version = service.publish(tableOf(3));
  EXPECT_EQ(service.checkChangeAdv(request("0")).isReset, 1);
  EXPECT_EQ(service.checkChangeAdv(request("")).isReset, 1);
  EXPECT_EQ(service.checkChangeAdv(request(version->digest())).isReset, 0);
  service.publish(tableOf(4));
  EXPECT_EQ(service.checkChangeAdv(request(version->digest())).isReset, 1);
}

TEST_F(LookupServiceTest, StampsVersionsWithTheTimeAndAlwaysUpwards) {
  EXPECT_EQ(service.publish(tableOf(1))->timesTamp(), kNow);
  EXPECT_EQ(service.publish(tableOf(2))->timesTamp(), kNow + 1);
  clock.advance(60000);
  EXPECT_EQ(service.publish(tableOf(3))->timesTamp(), kNow + 60);
  clock.stepWall(-3600000);
  EXPECT_EQ(service.publish(tableOf(4))->timesTamp(), kNow + 61);
}

TEST_F(LookupServiceTest, RefusesAFinishedVersionThatIsNotNewer) {
  const auto first = std::make_shared<const TableVersion>(tableOf(1), 7);
  service.publish(first);
  EXPECT_THROW(service.publish(std::make_shared<const TableVersion>(tableOf(2), 7)),
               std::invalid_argument);
  EXPECT_THROW(service.publish(std::make_shared<const TableVersion>(tableOf(2), 6)),
               std::invalid_argument);
  EXPECT_THROW(service.publish(std::shared_ptr<const TableVersion>()), std::invalid_argument);
  EXPECT_EQ(service.current(), first);
  EXPECT_EQ(service.publish(std::make_shared<const TableVersion>(tableOf(2), 8))->timesTamp(), 8u);
}

TEST_F(LookupServiceTest, NeverRunsOutOfTimeStampsSilently) {
  service.publish(std::make_shared<const TableVersion>(tableOf(1), UINT32_MAX));
  EXPECT_THROW(service.publish(tableOf(2)), std::invalid_argument);
  EXPECT_EQ(service.current()->timesTamp(), UINT32_MAX);
}

TEST_F(LookupServiceTest, PublishesAnEmptyTableOnlyWhenForced) {
  service.publish(tableOf(2));
  EXPECT_THROW(service.publish(TableData()), std::invalid_argument);
  EXPECT_EQ(service.current()->ranges().size(), 2u);
  service.publish(TableData(), EmptyTable::Allow);
  const ravel::downloadInfo page = service.totalDownloadIPInfo(0, 0, 10);
  EXPECT_TRUE(page.IPContent.empty());
  EXPECT_EQ(page.isdownloadReset, 1);
}

TEST_F(LookupServiceTest, KeepsTheCurrentTableWhenANewOneIsBad) {
  const auto version = service.publish(tableOf(2));
  TableData bad = tableOf(2);
  bad.ranges[1].startIP = 5;
  EXPECT_THROW(service.publish(bad), std::invalid_argument);
  EXPECT_EQ(service.current(), version);
}

TEST_F(LookupServiceTest, ServesPagesWithTheirCursors) {
  service.publish(tableOf(5));
  ravel::downloadInfo page = service.FirstTotalDownloadIPInfo(0, 0, 3);
  EXPECT_EQ(page.isdownloadReset, 1);
  EXPECT_EQ(page.highMaxIndex, kNow);
  EXPECT_EQ(page.lowMaxIndex, 5u);
  ASSERT_EQ(page.IPContent.size(), 3u);
  EXPECT_EQ(page.IPContent.back().timesTamp, kNow);
  EXPECT_EQ(page.IPContent.back().sequence, 3u);
  page = service.totalDownloadIPInfo(kNow, 3, 3);
  EXPECT_EQ(page.isdownloadReset, 0);
  ASSERT_EQ(page.IPContent.size(), 2u);
  EXPECT_EQ(page.IPContent.back().sequence, 5u);
}

TEST_F(LookupServiceTest, ServesAllCodes) {
  service.publish(tableOf(1, 42));
  const auto codes = service.totalDownloadCode();
  ASSERT_EQ(codes.size(), 1u);
  EXPECT_EQ(codes[0].ID, 42);
}

TEST_F(LookupServiceTest, AnswersNothingButOverloadWhileOverloaded) {
  service.publish(tableOf(1));
  service.setOverloaded(true);
  const ravel::CheckInfo info = service.checkChangeAdv(request("0", 9));
  EXPECT_EQ(info.isNetFlow, 1);
  EXPECT_EQ(info.isReset, 0);
  EXPECT_FALSE(info.updateConf);
  EXPECT_EQ(service.totalDownloadIPInfo(0, 0, 10).IPContent.size(), 1u);
  service.setOverloaded(false);
  EXPECT_EQ(service.checkChangeAdv(request("0")).isNetFlow, 0);
  EXPECT_EQ(service.checkChangeAdv(request("0")).isReset, 1);
}

TEST_F(LookupServiceTest, RaisesTheConfigurationVersionOnlyWhenSomethingChanged) {
  EXPECT_EQ(service.getConf().confVersion, 1);
  ravel::ClientConf conf;
  conf.confVersion = 77;
  EXPECT_EQ(service.setConf(conf), 1);
  conf.simplingRate = 100;
  EXPECT_EQ(service.setConf(conf), 2);
  EXPECT_EQ(service.setConf(conf), 2);
  conf.simpleLogCitys = {"Altenhafen"};
  EXPECT_EQ(service.setConf(conf), 3);
  conf.statisOpen = true;
  EXPECT_EQ(service.setConf(conf), 4);
  conf.logUnknownIp = true;
  EXPECT_EQ(service.setConf(conf), 5);
  conf.logBufferLimit = 5;
  EXPECT_EQ(service.setConf(conf), 6);
  EXPECT_EQ(service.getConf().simpleLogCitys, conf.simpleLogCitys);
}

TEST_F(LookupServiceTest, AnnouncesAnotherConfigurationVersion) {
  ravel::ClientConf conf;
  conf.confVersion = 12;
  service.restoreConf(conf);
  EXPECT_FALSE(service.checkChangeAdv(request("0", 12)).updateConf);
  EXPECT_TRUE(service.checkChangeAdv(request("0", 11)).updateConf);
  EXPECT_TRUE(service.checkChangeAdv(request("0", 13)).updateConf);
}

TEST_F(LookupServiceTest, RemembersReports) {
  service.reportCounts({tolvar_test::hits(ravel::ECountry, "Germany", 3)}, 1);
  service.reportLines({"unknown ip:1.2.3.4"}, 2);
  const Usage usage = service.usage();
  ASSERT_EQ(usage.counts.size(), 1u);
  EXPECT_EQ(usage.counts[0].count, 3u);
  EXPECT_EQ(usage.lines, std::vector<std::string>{"unknown ip:1.2.3.4"});
  EXPECT_EQ(usage.droppedHits, 1u);
  EXPECT_EQ(usage.droppedLines, 2u);
}

// Every page is of one version: all its places are those of the time stamp it carries.
TEST_F(LookupServiceTest, PagesStayWholeWhileVersionsChange) {
  std::atomic<bool> isOver{false};
  service.publish(tableOf(100, kNow));
  std::thread publisher([&] {
    for (std::uint32_t i = 1; i <= 200; ++i) {
      service.publish(std::make_shared<const TableVersion>(tableOf(100 + i, kNow + i), kNow + i));
      ravel::ClientConf conf;
      conf.simplingRate = static_cast<std::int32_t>(i);
      service.setConf(conf);
      service.setOverloaded(i % 2 == 0);
    }
    isOver = true;
  });
  std::uint32_t last = 0;
  do {
    const ravel::downloadInfo page = service.totalDownloadIPInfo(0, 0, 1000);
    EXPECT_GE(page.highMaxIndex, last);
    last = page.highMaxIndex;
    ASSERT_EQ(page.IPContent.size(), 100 + last - kNow);
    for (const ravel::IPProperty& range : page.IPContent) ASSERT_EQ(range.place, last);
    service.checkChangeAdv(request("0"));
    service.reportLines({"x"}, 0);
    service.getConf();
  } while (!isOver);
  publisher.join();
  EXPECT_EQ(service.current()->timesTamp(), kNow + 200);
}

TEST_F(LookupServiceTest, ConcurrentPublicationsGetStampsOfTheirOwn) {
  std::vector<std::thread> threads;
  std::array<std::vector<std::uint32_t>, 4> stamps;
  for (auto& mine : stamps) {
    threads.emplace_back([this, &mine] {
      for (int i = 0; i < 25; ++i) mine.push_back(service.publish(tableOf(3))->timesTamp());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::uint32_t> all;
  for (const auto& mine : stamps) all.insert(mine.begin(), mine.end());
  EXPECT_EQ(all.size(), 100u);
  EXPECT_EQ(service.current()->timesTamp(), kNow + 99);
}

}  // namespace
}  // namespace tolvar::service
