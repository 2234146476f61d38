// Copying the image of one data segment onto the other.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/src/store_fixture.h"
#include "tests/support/system_calls_guard.h"

namespace {

using namespace tolvar_test;

constexpr std::size_t kDefaultTotal = 73695648;
constexpr std::size_t kGrownTotal = 134217728;

class Copy : public testing::Test {
 protected:
  Copy() {
    client.open(keys);
    client.fill(0, table);
    client.fill(1, smallTable(2));
  }

  tolvar::ClientTestAccess& access() { return client.access; }

  /// Handles of a segment point at what lies in it.
  void expectReadable(int segment) {
    for (std::size_t i = 0; i < table.ranges.size(); ++i) {
      ravel::IPAttribute range;
      access().ipVector(segment)[i].ParseTo(&range);
      EXPECT_EQ(range.place, table.ranges[i].place);
    }
    const RawSegment raw(segment == 0 ? keys.data0() : keys.data1());
    EXPECT_EQ(raw.id(), access().shm(segment).id());
    EXPECT_EQ(raw.ranges(), rawRanges(table));
    for (int k = 0; k < 8; ++k) {
      EXPECT_EQ(raw.codes(k), rawCodes(table, k));
      EXPECT_EQ(access().codeVector(k, segment).getMaxIndex(), 3u);
    }
  }

  const TestTable table = smallTable(1);
  ShmKeys keys;
  StoreClient client;
};

TEST_F(Copy, LeavesTheTargetReadyAndTheSourceUnchanged) {
  client.announce(0, 2, 3);
  client.announce(1, 0, 3);
  const std::string source = RawSegment(keys.data0()).allBytes();
  access().CopyShareMemory(0, 1);
  EXPECT_TRUE(RawSegment(keys.data0()).allBytes() == source);
  EXPECT_EQ(RawSegment(keys.data0()).ipStatus(), 2u);
  EXPECT_EQ(RawSegment(keys.data0()).codeStatus(), 3u);

  const RawSegment target(keys.data1());
  EXPECT_EQ(target.ipStatus(), 1u);
  EXPECT_EQ(target.codeStatus(), 1u);
  EXPECT_TRUE(target.bytes(16, kDefaultTotal - 16) == source.substr(16));
  EXPECT_EQ(access().memoryHead(1).ip_usable, 1u);
  EXPECT_EQ(access().memoryHead(1).code_usable, 1u);
  expectReadable(1);
}

TEST_F(Copy, GrowsASmallerTarget) {
  access().ResizeIpBuffer(0, 1);
  access().ResizeShareMemory(0, kDefaultTotal + 1);
  access().ResizeCodeBuffer(0, 0, 5000);
  access().CopyShareMemory(0, 1);
  const RawSegment target(keys.data1());
  EXPECT_EQ(target.size(), kGrownTotal);
  EXPECT_EQ(target.ipStatus(), 1u);
  EXPECT_EQ(target.codeStatus(), 1u);
  EXPECT_EQ(access().codeRegion(1, 0).Size(), access().codeRegion(0, 0).Size());
  const RawSegment source(keys.data0());
  EXPECT_EQ(std::memcmp(source.at(16, kGrownTotal - 16), target.at(16, kGrownTotal - 16),
                        kGrownTotal - 16),
            0);
  expectReadable(1);
}

TEST_F(Copy, ADamagedTargetThatIsTooSmallIsLeftWhereItIs) {
  access().ResizeShareMemory(0, kDefaultTotal + 1);
  const int id = RawSegment::idBehind(keys.data1());
  RawSegment(keys.data1()).write64(16, 1);
  EXPECT_THROW(access().CopyShareMemory(0, 1), qel::ZU_Exception);
  EXPECT_EQ(RawSegment::idBehind(keys.data1()), id);
  EXPECT_EQ(RawSegment(keys.data1()).ipStatus(), 2u) << "nobody takes it for a good one";
  EXPECT_EQ(RawSegment(keys.data0()).ranges(), rawRanges(table));
}

TEST_F(Copy, OntoALargerTargetStaysInsideBothMappings) {
  access().ResizeShareMemory(1, kDefaultTotal + 1);
  // The record now announces more than the source has.
  ASSERT_EQ(RawSegment(keys.size()).recordedSize(), kGrownTotal);
  access().CopyShareMemory(0, 1);
  EXPECT_EQ(RawSegment(keys.data1()).size(), kGrownTotal);
  EXPECT_EQ(RawSegment(keys.data0()).size(), kDefaultTotal);
  expectReadable(1);
}

TEST_F(Copy, WorksWhenAnOperatorRemovedTheSizeRecord) {
  {
    StoreClient remover;
    ASSERT_TRUE(remover.access.shm(0).attach(keys.size()));
    remover.access.shm(0).del();
  }
  ASSERT_FALSE(RawSegment::exists(keys.size()));
  access().CopyShareMemory(0, 1);
  expectReadable(1);
  const RawSegment record(keys.size());
  EXPECT_TRUE(record.sizeMarksRight());
  EXPECT_EQ(record.recordedSize(), kDefaultTotal);
}

TEST_F(Copy, WorksWhenTheSizeRecordIsDamaged) {
  RawSegment record(keys.size());
  record.write64(0, 0);
  access().CopyShareMemory(1, 0);
  EXPECT_EQ(RawSegment(keys.data0()).ranges(), rawRanges(smallTable(2)));
  EXPECT_TRUE(record.sizeMarksRight());
  EXPECT_EQ(record.recordedSize(), kDefaultTotal);
}

// The injected call is a plain function, so what it needs to know lies here.
key_t removedKey = 0;

/// A system that removes every segment with its last attachment (kernel.shm_rmid_forced).
TEST_F(Copy, ARecordThatIsRemovedAgainAndAgainEndsNoProcess) {
  SystemCallsGuard guard;
  removedKey = keys.size();
  guard.calls().shmdt = [](const void* address) {
    const int answer = ::shmdt(address);
    ::shmctl(::shmget(removedKey, 0, 0), IPC_RMID, nullptr);
    return answer;
  };
  access().CopyShareMemory(0, 1);
  expectReadable(1);
}

std::size_t bytesInMemory(int id) {
  std::ifstream in("/proc/sysvipc/shm");
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::vector<std::uint64_t> values;
    for (std::string field; fields >> field;)
      values.push_back(std::strtoull(field.c_str(), nullptr, 10));
    // key shmid perms size cpid lpid nattch uid gid cuid cgid atime dtime ctime rss swap
    if (values.size() >= 16 && values[1] == static_cast<std::uint64_t>(id))
      return values[14] + values[15];
  }
  return 0;
}

TEST_F(Copy, TakesNoMemoryForTheRoomBehindTheRegions) {
  for (const int segment : {0, 1}) access().ResizeShareMemory(segment, kDefaultTotal + 1);
  for (int copies = 0; copies < 2; ++copies) access().CopyShareMemory(copies, 1 - copies);
  expectReadable(0);
  for (const int segment : {0, 1}) {
    const std::size_t taken = bytesInMemory(access().shm(segment).id());
    EXPECT_GT(taken, 4096u);
    EXPECT_LT(taken, kDefaultTotal + (std::size_t{8} << 20)) << segment;
  }
}

using CopyDeathTest = Copy;

TEST_F(CopyDeathTest, RecordThatHoldsNoMoreThanAHeadAborts) {
  access().WriteShareMemorySize(16);
  EXPECT_DEATH(access().CopyShareMemory(0, 1),
               "TolvarAPI:[0-9]+: void TolvarAPI::CopyShareMemory\\(int, int\\): Assertion "
               "`total_shm_size > offset' failed");
}

}  // namespace
