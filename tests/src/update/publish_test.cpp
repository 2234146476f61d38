#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "tests/src/update/scene.h"
#include "tests/support/system_calls_guard.h"

namespace tolvar_test {
namespace {

constexpr std::uint32_t kReady = 1;
constexpr std::uint32_t kPending = 2;
constexpr const char* kDigestOfNothing = "d41d8cd98f00b204e9800998ecf8427e";

TEST(Publish, EmptyTableIsPublishedWithTheDigestOfNothing) {
  StepScene scene;
  scene.access.totalWriteData2Shm();
  EXPECT_EQ(scene.access.cltMd5(), kDigestOfNothing);
  EXPECT_EQ(SegmentView(scene.keys.data1()).nodes(0), 0u);
  EXPECT_TRUE(scene.client.status().ipReady);
  EXPECT_EQ(scene.client.status().ranges, 0u);
}

TEST(Publish, OrderOfTheDownloadDoesNotChangeTheDigest) {
  StepScene scene;
  const Table table = selfCheckingTable(3, 20);
  scene.access.gathered() = table.rows;
  scene.access.totalWriteData2Shm();
  const std::string first = scene.access.cltMd5();
  EXPECT_EQ(first, digestOf(table.rows));
  scene.access.gathered().assign(table.rows.rbegin(), table.rows.rend());
  scene.access.totalWriteData2Shm();
  EXPECT_EQ(scene.access.cltMd5(), first);
}

TEST(Publish, NamesThatAreStillToComeGoBeforeTheRanges) {
  StepScene scene;
  TableServer server(scene.service);
  server.publish(selfCheckingTable(1, 20));
  ASSERT_TRUE(scene.refresh());
  const std::string before = server.digest();
  server.publish(selfCheckingTable(2, 20));
  std::string whenNamesCame;
  server.beforeCodes = [&] { whenNamesCame = scene.client.status().digest; };
  scene.makeCheckDue();
  scene.access.checkChange();
  // The last page. Whoever finds what a process leaves that ends half-way finds the old digest, and
  // fetches both.
  scene.access.totalDownloadRequest();
  EXPECT_EQ(whenNamesCame, before);
  EXPECT_FALSE(scene.access.isCheckingCode());
  EXPECT_EQ(scene.client.status().digest, server.digest());
  IPHumanMessage message;
  ASSERT_TRUE(scene.client.getIPInfoFromStr("1.0.0.1", &message));
  EXPECT_EQ(message.m_oper, "v2 oper");
}

TEST(Publish, FirstOneGoesToSegment1AndTheNextToSegment0) {
  StepScene scene;
  scene.access.gathered() = selfCheckingTable(1, 5).rows;
  scene.access.totalWriteData2Shm();
  EXPECT_EQ(scene.access.vectorIP(), &scene.access.ipVector(1));

  scene.access.gathered() = selfCheckingTable(2, 6).rows;
  scene.access.totalWriteData2Shm();
  EXPECT_EQ(scene.access.vectorIP(), &scene.access.ipVector(0));
  const SegmentView segment0(scene.keys.data0()), segment1(scene.keys.data1());
  EXPECT_EQ(segment0.nodes(0), 6u);
  EXPECT_EQ(segment1.content(), segment0.content());
}

TEST(Publish, SegmentHoldsEveryFieldOfEveryRange) {
  StepScene scene;
  Table table = selfCheckingTable(7, 10);
  table.rows[3].place = -5;
  table.rows[4].place = INT64_MAX;
  table.rows[5].apn = 0xffffffff;
  table.rows[6].startIP = table.rows[6].endIP;
  scene.access.gathered() = table.rows;
  scene.access.totalWriteData2Shm();
  const auto stored = SegmentView(scene.keys.data1()).ranges();
  ASSERT_EQ(stored.size(), 10u);
  EXPECT_EQ(digestOf(stored), digestOf(table.rows));
  EXPECT_EQ(stored[3].place, -5);
  EXPECT_EQ(stored[4].place, INT64_MAX);
  EXPECT_EQ(stored[5].apn, 0xffffffffu);
}

TEST(Publish, WorkIsHandedOverAndTheDownloadEmptied) {
  StepScene scene;
  scene.access.gathered() = selfCheckingTable(1, 5).rows;
  scene.access.totalWriteData2Shm();
  EXPECT_TRUE(scene.access.gathered().empty());
  EXPECT_EQ(scene.access.ipQueryVec().size(), 5u);
  ravel::IPInfo info;
  ASSERT_TRUE(scene.client.getIPInfo(kFirstAddress + 256, &info));
  EXPECT_EQ(versionOf(kFirstAddress + 256, info), 1u);
  EXPECT_FALSE(scene.client.getIPInfo(kFirstAddress + 200, &info)) << "between two ranges";
}

TEST(Publish, LinesTellCountsAndDigest) {
  StepScene scene;
  scene.access.gathered() = selfCheckingTable(1, 5).rows;
  const std::string digest = digestOf(scene.access.gathered());
  scene.access.totalWriteData2Shm();
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "before sort."),
            std::vector<std::string>{"before sort. m_vIPProperty.size = 5"});
  EXPECT_EQ(textsStarting(scene.output.out, "after total"),
            std::vector<std::string>{"after total download complete, svr_ip_size=5, "
                                     "shm_ip_size=5, clt_md5=" +
                                     digest});
}

TEST(Publish, DigestFromTheSegmentIsTheSame) {
  StepScene scene;
  scene.access.gathered() = selfCheckingTable(1, 5).rows;
  scene.access.totalWriteData2Shm();
  const std::string digest = scene.access.cltMd5();
  scene.access.cltMd5() = "0";
  scene.output.take();
  scene.access.CalculateMd5FromShareMemory();
  EXPECT_EQ(scene.access.cltMd5(), digest);
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.out, "ip_size="),
            std::vector<std::string>{"ip_size=5, mem_len=180, md5=" + digest});
}

TEST(Publish, RangeThatFindsNoNodeIsLoggedAndTheRestIsWritten) {
  StepScene scene;
  IPVector& vector = scene.access.ipVector(1);
  vector.reset(vector.getAddr(), IPVector::calcMemSize(3));
  scene.access.gathered() = selfCheckingTable(1, 5).rows;
  const std::string digest = digestOf(scene.access.gathered());
  scene.output.take();
  EXPECT_EQ(scene.access.writeTable(1, scene.access.gathered()), digest)
      << "the image of a lost range stays in the digest";
  scene.output.take();
  EXPECT_EQ(textsStarting(scene.output.err, "TolvarAPI::totalWriteData2Shm() catch "),
            (std::vector<std::string>(
                2,
                "TolvarAPI::totalWriteData2Shm() catch memVectorException: [MemVector::get] index "
                "beyond : index = 3 > 3")));
  EXPECT_EQ(vector.getMaxIndex(), 3u);
}

TEST(Publish, FirstOneSetsBit1AndWakesNobodyBeforeTheCodesAreThere) {
  StepScene scene;
  scene.access.totalWriteData2Shm();
  EXPECT_EQ(scene.access.hasInitialized(), 1);
  scene.access.isCheckingCode() = true;
  scene.access.checkCodeChangeRequest();
  EXPECT_EQ(scene.access.hasInitialized(), 3);
}

TEST(Publish, TimesAreTakenAroundTheWriting) {
  StepScene scene;
  scene.clock.advance(7000);
  scene.access.totalWriteData2Shm();
  EXPECT_EQ(scene.access.tBegin().tv_sec, 1700000007);
  EXPECT_EQ(scene.access.tEnd().tv_sec, 1700000007);
}

TEST(Publish, ColdStartAnnouncesNoHalfThatIsEmpty) {
  StepScene scene;
  scene.access.gathered() = selfCheckingTable(1, 5).rows;
  scene.access.totalWriteData2Shm();
  for (const key_t key : {scene.keys.data0(), scene.keys.data1()}) {
    const SegmentView segment(key);
    EXPECT_EQ(segment.ipStatus(), kReady);
    EXPECT_NE(segment.codeStatus(), kReady);
  }
  scene.access.isCheckingCode() = true;
  scene.access.checkCodeChangeRequest();
  for (const key_t key : {scene.keys.data0(), scene.keys.data1()}) {
    EXPECT_EQ(SegmentView(key).ipStatus(), kReady);
    EXPECT_EQ(SegmentView(key).codeStatus(), kReady);
  }
}

TEST(Publish, FailedOneLeavesTheTargetPendingAndTheOldTableInUse) {
  StepScene scene(4);
  scene.access.gathered() = selfCheckingTable(1, 3).rows;
  scene.access.totalWriteData2Shm();
  const std::string digest = scene.access.cltMd5();
  SystemCallsGuard guard;
  guard.calls().shmget = [](key_t key, std::size_t size, int flags) {
    if ((flags & IPC_CREAT) != 0 && size > 136) {
      // Nobody may find a half-written table: the segment about to change says so already.
      errno = ENOMEM;
      return -1;
    }
    return shmget(key, size, flags);
  };
  guard.calls().shmctl = [](int id, int command, shmid_ds* data) {
    if (command == IPC_RMID) {
      errno = EPERM;
      return -1;
    }
    return shmctl(id, command, data);
  };
  scene.access.gathered() = selfCheckingTable(2, 50).rows;
  EXPECT_THROW(scene.access.totalWriteData2Shm(), qel::ZU_Exception);
  EXPECT_EQ(SegmentView(scene.keys.data0()).ipStatus(), kPending);
  EXPECT_EQ(SegmentView(scene.keys.data1()).ipStatus(), kReady);
  EXPECT_EQ(scene.access.vectorIP(), &scene.access.ipVector(1));
  EXPECT_EQ(scene.access.cltMd5(), digest);
  EXPECT_EQ(scene.access.ipQueryVec().size(), 3u);
  ravel::IPInfo info;
  EXPECT_TRUE(scene.client.getIPInfo(kFirstAddress, &info));
  EXPECT_EQ(versionOf(kFirstAddress, info), 1u);
}

}  // namespace
}  // namespace tolvar_test
