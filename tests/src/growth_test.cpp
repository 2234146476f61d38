// Growing the regions of a data segment, and the segment with them.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <random>

#include "tests/src/store_fixture.h"
#include "tests/support/system_calls_guard.h"

namespace {

using namespace tolvar_test;

constexpr std::size_t kDefaultTotal = 73695648;
constexpr std::size_t kGrownTotal = 134217728;
constexpr int kSegment = 1;

class Growth : public testing::Test {
 protected:
  Growth() {
    client.open(keys);
    client.announce(kSegment, 2, 3);
  }

  tolvar::ClientTestAccess& access() { return client.access; }

  /// Random entries in all eight tables and some ranges, as in a table in use.
  void fillAll() {
    std::mt19937_64 random(11);
    table = randomTable(random, 400, 200);
    client.fill(kSegment, table);
  }

  /// Bytes of every region's nodes up to the last one written, and of one slot more.
  std::vector<std::string> nodesOf(const RawSegment& segment) {
    std::vector<std::string> nodes;
    for (const RawRegion& region : segment.regions())
      nodes.push_back(segment.bytes(region.node(0), (region.count + 1) * 128));
    return nodes;
  }

  /// The handles of the process agree with what a stranger sees in the segment.
  void expectHandlesAgree() {
    const RawSegment raw(keys.data1());
    ASSERT_EQ(raw.id(), access().shm(kSegment).id());
    EXPECT_EQ(raw.size(), access().shm(kSegment).size());
    const char* start = static_cast<const char*>(access().shm(kSegment).getPointer());
    const auto regions = raw.regions();
    for (int i = 0; i < 9; ++i) {
      const RawRegion& region = regions[static_cast<std::size_t>(i)];
      const ProlatePointer& handle =
          i == 0 ? access().ipRegion(kSegment) : access().codeRegion(kSegment, i - 1);
      EXPECT_EQ(handle.GetPtr(), start + region.offset) << i;
      EXPECT_EQ(handle.Data(), start + region.block()) << i;
      EXPECT_EQ(handle.Size(), region.sizeWord) << i;
      EXPECT_EQ(region.size, region.sizeWord) << i;
      EXPECT_EQ(region.capacity, (region.sizeWord - 32) / 128) << i;
      EXPECT_EQ(region.nodeSize, 128u) << i;
      const void* vector = i == 0 ? access().ipVector(kSegment).getAddr()
                                  : access().codeVector(i - 1, kSegment).getAddr();
      EXPECT_EQ(vector, start + region.block()) << i;
    }
    EXPECT_EQ(raw.ipStatus(), 2u) << "growth does not touch the statuses";
    EXPECT_EQ(raw.codeStatus(), 3u);
    EXPECT_EQ(raw.ranges(), rawRanges(table));
    for (int k = 0; k < 8; ++k) EXPECT_EQ(raw.codes(k), rawCodes(table, k)) << k;
  }

  std::uint64_t recordedSize() { return RawSegment(keys.size()).recordedSize(); }

  ShmKeys keys;
  StoreClient client;
  TestTable table;
};

TEST_F(Growth, SizeNoLargerThanTheCurrentOneChangesNothing) {
  const int id = RawSegment::idBehind(keys.data1());
  access().WriteShareMemorySize(4711);
  const std::string before = RawSegment(keys.data1()).bytes(0, 1 << 16);
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kDefaultTotal - 1, kDefaultTotal})
    access().ResizeShareMemory(kSegment, size);
  EXPECT_EQ(RawSegment::idBehind(keys.data1()), id) << "the segment was made anew";
  EXPECT_EQ(recordedSize(), 4711u);
  EXPECT_EQ(RawSegment(keys.data1()).size(), kDefaultTotal);
  EXPECT_EQ(RawSegment(keys.data1()).bytes(0, 1 << 16), before);
}

TEST_F(Growth, OneByteMoreDoublesToAPowerOfTwoAndIsRecorded) {
  fillAll();
  const std::string before = RawSegment(keys.data1()).allBytes();
  access().ResizeShareMemory(kSegment, kDefaultTotal + 1);
  const RawSegment grown(keys.data1());
  EXPECT_EQ(grown.size(), kGrownTotal);
  EXPECT_EQ(grown.mode(), 0660u);
  EXPECT_EQ(recordedSize(), kGrownTotal);
  EXPECT_TRUE(grown.bytes(0, kDefaultTotal) == before);
  EXPECT_TRUE(grown.bytes(kDefaultTotal, kGrownTotal - kDefaultTotal) ==
              std::string(kGrownTotal - kDefaultTotal, '\0'));
  EXPECT_EQ(RawSegment(keys.data0()).size(), kDefaultTotal) << "the other one stays";
  expectHandlesAgree();
}

TEST_F(Growth, IpRegionHolds524288NodesAsItIs) {
  const int id = RawSegment::idBehind(keys.data1());
  access().ResizeIpBuffer(kSegment, 524288);
  EXPECT_EQ(RawSegment::idBehind(keys.data1()), id);
  EXPECT_EQ(access().ipVector(kSegment).size(), 524288u);
  EXPECT_EQ(access().ipRegion(kSegment).Size(), 67108896u);
  EXPECT_EQ(recordedSize(), kDefaultTotal);
}

TEST_F(Growth, IpRegionGrownBeyond524288NodesKeepsAllTables) {
  fillAll();
  std::vector<std::string> before;
  std::string behindTheOldBlock;
  {
    const RawSegment old(keys.data1());
    before = nodesOf(old);
    behindTheOldBlock = old.bytes(24 + 67108896, 4096);
  }
  access().ResizeIpBuffer(kSegment, 524289);

  EXPECT_EQ(access().ipRegion(kSegment).Size(), 134217728u);
  EXPECT_EQ(access().ipVector(kSegment).size(), 1048575u);
  EXPECT_EQ(access().ipVector(kSegment).getMaxIndex(), table.ranges.size());
  expectHandlesAgree();
  const RawSegment grown(keys.data1());
  EXPECT_EQ(nodesOf(grown), before);
  EXPECT_EQ(recordedSize(), grown.size());
  EXPECT_EQ(grown.size(), 268435456u) << "the old block is counted on top of the new one";
  const auto regions = grown.regions();
  EXPECT_EQ(regions[0].offset, 16u);
  EXPECT_EQ(regions[1].offset, 24u + 134217728u);

  // Slots beyond the old capacity hold what lay there; emptying the vector zeroes them.
  EXPECT_EQ(grown.bytes(regions[0].node(524288), 4096), behindTheOldBlock);
  access().ipVector(kSegment).clear();
  EXPECT_EQ(grown.bytes(regions[0].node(524288), 4096), std::string(4096, '\0'));
  EXPECT_EQ(grown.bytes(regions[0].node(1048574), 128), std::string(128, '\0'));
  EXPECT_EQ(access().ipVector(kSegment).getMaxIndex(), 0u);
  for (int k = 0; k < 8; ++k) EXPECT_EQ(grown.codes(k), rawCodes(table, k)) << k;

  // Another process takes the grown segment over as it is.
  StoreClient other;
  client.announce(kSegment, 1, 1);
  other.open(keys);
  EXPECT_EQ(other.access.vectorIP(), &other.access.ipVector(kSegment));
  EXPECT_EQ(other.access.ipVector(kSegment).size(), 1048575u);
  EXPECT_EQ(other.access.codeVector(3, kSegment).getMaxIndex(), 200u);
  EXPECT_EQ(other.access.shm(0).size(), kDefaultTotal) << "attached at its real size";
  EXPECT_EQ(other.err, "");
}

TEST_F(Growth, CodeRegionsGrowOneAfterTheOtherAndKeepEverything) {
  fillAll();
  // Backwards: the last table first, which moves nothing, and the first last, which moves all.
  for (int k = 7; k >= 0; --k) {
    SCOPED_TRACE(k);
    std::vector<std::string> nodes;
    std::array<RawRegion, 9> before{};
    {
      const RawSegment old(keys.data1());
      nodes = nodesOf(old);
      before = old.regions();
    }
    const RawRegion& old = before[static_cast<std::size_t>(1 + k)];
    access().ResizeCodeBuffer(kSegment, k, old.capacity);
    EXPECT_EQ(access().codeRegion(kSegment, k).Size(), old.sizeWord) << "it was large enough";

    access().ResizeCodeBuffer(kSegment, k, old.capacity + 1);
    const std::size_t bytes = 2 * (old.sizeWord - 32);
    EXPECT_EQ(access().codeRegion(kSegment, k).Size(), bytes);
    EXPECT_EQ(access().codeVector(k, kSegment).size(), (bytes - 32) / 128);
    expectHandlesAgree();
    const RawSegment grown(keys.data1());
    EXPECT_EQ(nodesOf(grown), nodes);
    const auto after = grown.regions();
    const std::size_t moved = bytes - old.sizeWord;
    for (std::size_t region = 0; region < 9; ++region) {
      const bool behind = region > static_cast<std::size_t>(1 + k);
      EXPECT_EQ(after[region].offset, before[region].offset + (behind ? moved : 0)) << region;
      EXPECT_EQ(after[region].count, before[region].count) << region;
    }
  }
  EXPECT_EQ(RawSegment(keys.data1()).size(), kGrownTotal);
}

TEST_F(Growth, RegionsGrowToTheLastNodeTheyAnnounce) {
  // Table 7 at the segment's end: after growing it is filled to the brim, without touching anything
  // beyond the segment.
  fillAll();
  access().ResizeCodeBuffer(kSegment, 7, 100000);
  CodeVector& vector = access().codeVector(7, kSegment);
  EXPECT_EQ(vector.size(), (16777216u - 32) / 128);
  MemNode_CodeInfo node;
  ravel::CodeInfo code;
  code.codeType = 8;
  code.content = "full";
  node.CopyFrom(code);
  while (vector.getMaxIndex() < vector.size()) vector.writeData(node);
  EXPECT_THROW(vector.writeData(node), memVectorException);
  const RawSegment raw(keys.data1());
  EXPECT_EQ(raw.ranges(), rawRanges(table));
  for (int k = 0; k < 7; ++k) EXPECT_EQ(raw.codes(k), rawCodes(table, k)) << k;
  EXPECT_EQ(raw.codes(7).back().content, "full");
}

// --- Failing system calls ---------------------------------------------------------------------

// The injected calls are plain functions, so what they need to know lies here.
std::atomic<int> refused{0};
std::atomic<bool> refuseEverySize{false};
std::atomic<key_t> sizeKey{0};

int refuseLargeSegments(key_t key, std::size_t size, int flags) {
  const bool creates = (flags & IPC_CREAT) != 0;
  if (creates && (size > kDefaultTotal || refuseEverySize)) {
    ++refused;
    errno = ENOSPC;
    return -1;
  }
  return ::shmget(key, size, flags);
}

class GrowthFault : public Growth {
 protected:
  GrowthFault() {
    fillAll();
    refused = 0;
    refuseEverySize = false;
    sizeKey = keys.size();
    before = RawSegment(keys.data1()).allBytes();
  }

  void expectGrowthFails() {
    CapturedOutput output;
    EXPECT_THROW(access().ResizeIpBuffer(kSegment, 524289), qel::ZU_Exception);
    output.stop();
    said = output.err;
  }

  void expectUnchanged() {
    const RawSegment raw(keys.data1());
    EXPECT_EQ(raw.size(), kDefaultTotal);
    EXPECT_TRUE(raw.allBytes() == before);
    EXPECT_EQ(recordedSize(), kDefaultTotal);
    expectHandlesAgree();
  }

  void expectGrowthWorksNow() {
    qel::systemCalls() = qel::realSystemCalls();
    access().ResizeIpBuffer(kSegment, 524289);
    EXPECT_EQ(access().ipVector(kSegment).size(), 1048575u);
    EXPECT_EQ(recordedSize(), 268435456u);
    expectHandlesAgree();
  }

  SystemCallsGuard guard;
  std::string before, said;
};

TEST_F(GrowthFault, RefusedSegmentKeepsTheOldSizeAndContent) {
  guard.calls().shmget = refuseLargeSegments;
  expectGrowthFails();
  EXPECT_EQ(refused, 1);
  EXPECT_NE(said.find("cannot grow share memory to 268435456 bytes, keeping 73695648"),
            std::string::npos)
      << said;
  expectUnchanged();
  expectGrowthWorksNow();
}

TEST_F(GrowthFault, FailedAttachmentKeepsTheOldSizeAndContent) {
  guard.calls().shmat = [](int id, const void* address, int flags) {
    if (refused++ == 0) {
      errno = ENOMEM;
      return reinterpret_cast<void*>(-1);
    }
    return ::shmat(id, address, flags);
  };
  expectGrowthFails();
  expectUnchanged();
  expectGrowthWorksNow();
}

TEST_F(GrowthFault, WithoutAnySegmentTheContentStaysInTheProcess) {
  guard.calls().shmget = refuseLargeSegments;
  refuseEverySize = true;
  expectGrowthFails();
  EXPECT_FALSE(RawSegment::exists(keys.data1()));
  // Nobody else can see it, but this process still reads and writes all of it.
  ASSERT_EQ(access().shm(kSegment).size(), kDefaultTotal);
  EXPECT_TRUE(std::string(static_cast<const char*>(access().shm(kSegment).getPointer()),
                          kDefaultTotal) == before);
  EXPECT_EQ(access().ipVector(kSegment).getMaxIndex(), table.ranges.size());
  MemoryHead head;
  access().ReadMemoryHead(kSegment, &head);
  EXPECT_EQ(head.ip_usable, 2u);
  EXPECT_EQ(access().codeVector(3, kSegment).getMaxIndex(), 200u);
  // Again and again, without harm.
  expectGrowthFails();
  expectGrowthFails();
  EXPECT_EQ(access().codeVector(7, kSegment).getMaxIndex(), 200u);
  expectGrowthWorksNow();
}

TEST_F(GrowthFault, FailedSizeRecordLeavesTheGrownSegmentUsable) {
  guard.calls().shmget = [](key_t key, std::size_t size, int flags) {
    if (key == sizeKey) {
      errno = EACCES;
      return -1;
    }
    return ::shmget(key, size, flags);
  };
  EXPECT_THROW(access().ResizeIpBuffer(kSegment, 524289), qel::ZU_Exception);
  EXPECT_EQ(recordedSize(), kDefaultTotal);
  EXPECT_EQ(RawSegment(keys.data1()).size(), 268435456u);
  expectHandlesAgree();
  // The segment is large enough now, so the next attempt needs no record.
  qel::systemCalls() = qel::realSystemCalls();
  access().ResizeIpBuffer(kSegment, 524289);
  EXPECT_EQ(access().ipVector(kSegment).size(), 1048575u);
  expectHandlesAgree();
}

TEST_F(GrowthFault, NothingIsLeftBehindByAFailedAttachment) {
  guard.calls().shmat = [](int, const void*, int) {
    errno = ENOMEM;
    return reinterpret_cast<void*>(-1);
  };
  expectGrowthFails();
  qel::systemCalls() = qel::realSystemCalls();
  // A segment that could not be attached must not occupy the key, empty and for good.
  EXPECT_FALSE(RawSegment::exists(keys.data1()));
  expectGrowthWorksNow();
}

// --- Misuse -----------------------------------------------------------------------------------

using GrowthDeathTest = Growth;

TEST_F(GrowthDeathTest, SegmentsAreNumbered0And1) {
  const char* text =
      "TolvarAPI:[0-9]+: void TolvarAPI::ResizeShareMemory\\(int, size_t\\): Assertion "
      "`\\(shm_index == 0\\) \\|\\| \\(shm_index == 1\\)' failed";
  EXPECT_DEATH(access().ResizeShareMemory(2, 1), text);
  EXPECT_DEATH(access().ResizeShareMemory(-1, 1), text);
}

TEST(ResizeShareMemoryDeathTest, UnattachedSegmentAborts) {
  StoreClient client;
  EXPECT_DEATH(client.access.ResizeShareMemory(0, 1),
               "TolvarAPI:[0-9]+: void TolvarAPI::ResizeShareMemory\\(int, size_t\\): Assertion "
               "`origin_size > sizeof\\(MemoryHead\\)' failed");
}

}  // namespace
