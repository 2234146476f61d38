#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tests/src/update/scene.h"
#include "tests/support/system_calls_guard.h"

namespace tolvar_test {
namespace {

/// A page whose ranges have the cursors (high, first), (high, first + 1), ...
ravel::downloadInfo page(std::uint32_t high, std::uint32_t first, std::size_t count,
                         std::uint32_t lowEnd, bool reset = false) {
  ravel::downloadInfo answer;
  answer.highMaxIndex = high;
  answer.lowMaxIndex = lowEnd;
  answer.isdownloadReset = reset ? 1 : 0;
  for (std::size_t i = 0; i < count; ++i) {
    const auto sequence = static_cast<std::uint32_t>(first + i);
    ravel::IPProperty range = row(sequence * 256, sequence * 256 + 9);
    range.timesTamp = high;
    range.sequence = sequence;
    answer.IPContent.push_back(range);
  }
  return answer;
}

/// A client in the middle of a download; every page is answered with `answer`.
struct DownloadScene : StepScene {
  ravel::downloadInfo answer;

  explicit DownloadScene(std::size_t ranges = 64) : StepScene(ranges) {
    access.isTotalDownLoading() = true;
    access.proxyHashKey() = 77;
    service->download = service->firstDownload = [this](std::uint32_t, std::uint32_t, std::uint32_t,
                                                        ravel::downloadInfo& out) { out = answer; };
  }

  bool published() { return access.vectorIP() != &access.ipVector(0); }
};

constexpr std::uint64_t cursor(std::uint64_t high, std::uint64_t low) { return high << 32 | low; }

TEST(Download, WithoutAnActiveOneNothingIsAskedFor) {
  DownloadScene scene;
  scene.access.isTotalDownLoading() = false;
  EXPECT_FALSE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.service->calls().empty());
}

TEST(Download, FirstDownloadGoesToTheFastObject) {
  DownloadScene scene;
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_EQ(scene.service->calls(),
            (std::vector<std::string>{"selectServer(F) 77", "FirstTotalDownloadIPInfo 0 0 50000"}));
  scene.output.take();
  const auto first = textsAt(scene.output.out, 868);
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(
      first[0].rfind("This is the first totalDownloadRequest,the m_cltMd5 is: 0, proxy=0x", 0), 0u)
      << first[0];
}

TEST(Download, AnyOtherDigestGoesToTheMainObject) {
  DownloadScene scene;
  scene.access.cltMd5() = "d41d8";
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_EQ(scene.service->calls(),
            (std::vector<std::string>{"selectServer 77", "totalDownloadIPInfo 0 0 50000"}));
  scene.output.take();
  const auto other = textsAt(scene.output.out, 876);
  ASSERT_EQ(other.size(), 1u);
  EXPECT_EQ(other[0].rfind(
                "This is the non_first totalDownloadRequest,the m_cltMd5 is: d41d8, proxy=0x", 0),
            0u)
      << other[0];
}

TEST(Download, PositionIsSentInTwoHalves) {
  DownloadScene scene;
  scene.access.currDownloadPos() = cursor(5, 7);
  scene.answer = page(9, 1, 2, 100);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_EQ(scene.service->calls().back(), "FirstTotalDownloadIPInfo 5 7 50000");
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.out, 862),
            std::vector<std::string>{"begin small download, high_pos=5, low_pos=7"});
  EXPECT_EQ(textsAt(scene.output.out, 885),
            std::vector<std::string>{"small download done, high_pos=5, low_pos=7, content_size=2, "
                                     "high_index=9, low_index=100"});
}

TEST(Download, FirstFullPageWithResetStartsGatheringAfresh) {
  DownloadScene scene;
  scene.access.gathered().assign(3, row(1, 2));
  scene.answer = page(4, 1, 50000, 60000, true);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_EQ(scene.access.gathered().size(), 50000u);
  EXPECT_EQ(scene.access.currDownloadPos(), cursor(4, 50000));
  EXPECT_TRUE(scene.access.isTotalDownLoading());
  EXPECT_FALSE(scene.published());
}

TEST(Download, GatheredRangesKeepTheirFieldsAndLoseTheirCursor) {
  DownloadScene scene;
  ravel::IPProperty range = row(10, 20, 30, 40);
  range.extend = 50;
  range.nettype = 60;
  range.apn = 70;
  range.flable = 80;
  range.timesTamp = 4;
  range.sequence = 1;
  scene.answer = page(4, 1, 0, 100);
  scene.answer.IPContent = {range};
  scene.access.totalDownloadRequest();
  ASSERT_EQ(scene.access.gathered().size(), 1u);
  const ravel::IPProperty& kept = scene.access.gathered()[0];
  EXPECT_EQ(kept.timesTamp, 0u);
  EXPECT_EQ(kept.sequence, 0u);
  EXPECT_FALSE(kept < range);
  EXPECT_FALSE(range < kept);
}

TEST(Download, PageWithoutResetIsAppended) {
  DownloadScene scene;
  scene.answer = page(4, 1, 10, 100, true);
  scene.access.totalDownloadRequest();
  scene.answer = page(4, 11, 10, 100);
  scene.access.totalDownloadRequest();
  EXPECT_EQ(scene.access.gathered().size(), 20u);
  EXPECT_EQ(scene.access.currDownloadPos(), cursor(4, 20));
}

TEST(Download, EmptyPageFinishesAtOnceAndKeepsThePosition) {
  DownloadScene scene;
  scene.access.posFile().mmap("downloadPos.dat", 9);
  scene.access.gathered() = {row(1, 2), row(5, 6)};
  scene.access.currDownloadPos() = cursor(5, 7);
  scene.answer = page(9, 1, 0, 100);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.published());
  EXPECT_FALSE(scene.access.isTotalDownLoading());
  EXPECT_EQ(scene.access.ipQueryVec().size(), 2u);
  const std::string file = readFile("downloadPos.dat");
  ASSERT_EQ(file.size(), 9u);
  std::uint64_t stored = 0;
  std::memcpy(&stored, file.data(), sizeof stored);
  EXPECT_EQ(stored, cursor(5, 7));
}

/// A write to the mapping would end the process with SIGBUS.
TEST(Download, PositionFileThatSomebodyCutIsWrittenAnew) {
  DownloadScene scene;
  scene.access.posFile().mmap("downloadPos.dat", 9);
  ASSERT_EQ(truncate("downloadPos.dat", 0), 0);
  scene.access.currDownloadPos() = cursor(5, 7);
  scene.answer = page(9, 1, 0, 100);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.published());
  const std::uint64_t position = cursor(5, 7);
  const std::string file = readFile("downloadPos.dat");
  ASSERT_EQ(file.size(), sizeof position);
  EXPECT_EQ(std::memcmp(file.data(), &position, sizeof position), 0);
}

TEST(Download, PositionFileThatCannotBeWrittenIsLoggedAndCostsNothing) {
  DownloadScene scene;
  scene.access.posFile().mmap("downloadPos.dat", 9);
  SystemCallsGuard guard;
  guard.calls().pwrite = [](int, const void*, size_t, off_t) -> ssize_t {
    errno = ENOSPC;
    return -1;
  };
  scene.answer = page(9, 1, 0, 100);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.published());
  EXPECT_FALSE(scene.access.isTotalDownLoading());
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "cannot write downloadPos.dat, errno 28").size(), 1u);
}

/// Positions count ranges here, so the first page tells how much room the table takes.
TEST(Download, RoomForTheWholeTableIsMadeAtOnce) {
  DownloadScene scene;
  scene.answer = page(4, 1, 10, 3000, true);
  scene.access.totalDownloadRequest();
  EXPECT_GE(scene.access.gathered().capacity(), 3000u);
  const void* const place = scene.access.gathered().data();
  scene.answer = page(4, 11, 2990, 3000);
  scene.access.totalDownloadRequest();
  EXPECT_TRUE(scene.published());
  EXPECT_EQ(static_cast<const void*>(scene.access.ipQueryVec().data()), place) << "nothing copied";
}

TEST(Download, EmptyPageWithResetPublishesAnEmptyTable) {
  DownloadScene scene;
  scene.access.gathered() = {row(1, 2)};
  scene.answer = page(9, 1, 0, 0, true);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.published());
  EXPECT_TRUE(scene.access.ipQueryVec().empty());
}

TEST(Download, PageThatReachesTheEndIsAppendedAndFinishesInTheSameCall) {
  DownloadScene scene;
  scene.access.posFile().mmap("downloadPos.dat", 9);
  scene.answer = page(0x01020304, 1, 10, 10, true);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_EQ(scene.callsStarting("FirstTotalDownloadIPInfo").size(), 1u);
  EXPECT_TRUE(scene.published());
  EXPECT_EQ(scene.access.ipQueryVec().size(), 10u);
  EXPECT_FALSE(scene.access.isTotalDownLoading());
  EXPECT_EQ(scene.access.tEnd().tv_sec, 1700000000);
  // Nine bytes: the position in the machine's order, then one that nobody uses.
  EXPECT_EQ(readFile("downloadPos.dat"), std::string("\x0a\0\0\0\x04\x03\x02\x01\0", 9));
}

TEST(Download, PositionAtOrBehindTheEndFinishesWithoutThePage) {
  DownloadScene scene;
  scene.access.gathered() = {row(1, 2)};
  scene.access.currDownloadPos() = cursor(4, 10);
  scene.answer = page(4, 50, 5, 10);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.published());
  EXPECT_EQ(scene.access.ipQueryVec().size(), 1u);
}

TEST(Download, PositionIsNotWrittenBeforeTheEnd) {
  DownloadScene scene;
  scene.access.posFile().mmap("downloadPos.dat", 9);
  scene.answer = page(4, 1, 10, 100, true);
  scene.access.totalDownloadRequest();
  EXPECT_EQ(readFile("downloadPos.dat"), std::string(9, '\0'));
}

TEST(Download, FailuresAreLoggedAndTheSamePageIsAskedForAgain) {
  DownloadScene scene;
  scene.access.currDownloadPos() = cursor(5, 7);
  scene.access.gathered() = {row(1, 2)};
  scene.service->firstDownload = [](auto, auto, auto, auto&) {
    throw qel::ZU_Exception("line cut");
  };
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  scene.service->firstDownload = [](auto, auto, auto, auto&) { throw std::runtime_error("odd"); };
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  scene.service->firstDownload = [](auto, auto, auto, auto&) { throw 1; };
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.access.isTotalDownLoading());
  EXPECT_EQ(scene.access.currDownloadPos(), cursor(5, 7));
  EXPECT_EQ(scene.access.gathered().size(), 1u);
  EXPECT_EQ(scene.callsStarting("FirstTotalDownloadIPInfo"),
            std::vector<std::string>(3, "FirstTotalDownloadIPInfo 5 7 50000"));
  scene.output.take();
  EXPECT_EQ(textsAt(scene.output.err, 957),
            std::vector<std::string>{"catch qel exception: line cut"});
  EXPECT_EQ(textsAt(scene.output.err, 962), std::vector<std::string>{"catch  std exception:odd"});
  EXPECT_EQ(textsAt(scene.output.err, 967), std::vector<std::string>{"UNKOWN EX:"});
  EXPECT_EQ(scene.output.err.size(), 3u);
}

TEST(Download, PageThatDoesNotAdvanceIsAskedForAgainAndItsRowsAreThereOnce) {
  DownloadScene scene;
  scene.answer = page(4, 1, 10, 20, true);
  scene.access.totalDownloadRequest();
  // The last range's cursor is the position sent, below the end.
  scene.answer = page(4, 6, 5, 20);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(scene.access.totalDownloadRequest());
    EXPECT_EQ(scene.access.currDownloadPos(), cursor(4, 10));
    EXPECT_EQ(scene.access.gathered().size(), 15u);
  }
  EXPECT_EQ(scene.callsStarting("FirstTotalDownloadIPInfo 4 10 ").size(), 3u);
  scene.answer = page(4, 11, 10, 20);
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.published());
  ASSERT_EQ(scene.access.ipQueryVec().size(), 20u);
  for (std::uint32_t i = 0; i < 20; ++i)
    EXPECT_EQ(scene.access.ipQueryVec()[i].startIP, (i + 1) * 256);
}

TEST(Download, CursorThatGoesBackDoesNotMoveThePosition) {
  DownloadScene scene;
  scene.answer = page(4, 1, 10, 20, true);
  scene.access.totalDownloadRequest();
  scene.answer = page(4, 1, 3, 20);
  scene.access.totalDownloadRequest();
  EXPECT_EQ(scene.access.currDownloadPos(), cursor(4, 10));
  EXPECT_TRUE(scene.access.isTotalDownLoading());
  EXPECT_FALSE(scene.published());
}

TEST(Download, DefaultConstructedAnswerPublishesWhatWasGathered) {
  DownloadScene scene;
  scene.answer = ravel::downloadInfo();
  scene.access.gathered() = {row(1, 2)};
  EXPECT_TRUE(scene.access.totalDownloadRequest());
  EXPECT_TRUE(scene.published());
  EXPECT_EQ(scene.access.ipQueryVec().size(), 1u);
}

TEST(Download, TableThatChangesBetweenPagesIsPublishedInOneVersion) {
  StepScene scene(64);
  TableServer server(scene.service, 10);
  server.publish(selfCheckingTable(1, 40));
  int pages = 0;
  server.beforePage = [&] {
    if (++pages == 3) server.publish(selfCheckingTable(2, 25));
  };
  ASSERT_TRUE(scene.refresh());
  EXPECT_EQ(scene.access.cltMd5(), server.digest());
  ASSERT_EQ(scene.access.ipQueryVec().size(), 25u);
  for (const ravel::IPProperty& range : scene.access.ipQueryVec()) EXPECT_EQ(range.oper, 2u);
  EXPECT_EQ(digestOf(SegmentView(scene.keys.data1()).ranges()), server.digest());
  EXPECT_EQ(scene.callsStarting("FirstTotalDownloadIPInfo"),
            (std::vector<std::string>{
                "FirstTotalDownloadIPInfo 0 0 50000", "FirstTotalDownloadIPInfo 1001 10 50000",
                "FirstTotalDownloadIPInfo 1001 20 50000", "FirstTotalDownloadIPInfo 1002 10 50000",
                "FirstTotalDownloadIPInfo 1002 20 50000"}));
}

}  // namespace
}  // namespace tolvar_test
