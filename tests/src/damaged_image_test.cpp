// A damaged data segment never crashes a start: it counts as unusable and is laid anew, and the
// other segment answers.

#include <gtest/gtest.h>

#include <random>
#include <utility>

#include "tests/src/store_fixture.h"
#include "tests/support/fake_service.h"

namespace {

using namespace tolvar_test;

constexpr std::size_t kBlockBytes[9] = {67108896, 131104, 131104, 262176, 4194336,
                                        1048608,  524320, 262176, 32800};

/// A complete image in both segments. Segment 0 is damaged, opened, checked and put back.
class DamagedImage : public testing::Test {
 protected:
  DamagedImage() {
    publishImage(keys, table);
    const RawSegment good(keys.data0());
    regions = good.regions();
    save(good, 0, 16);
    // Nothing but the first nodes is written, so this is all that differs from a new segment.
    for (const RawRegion& region : regions) save(good, region.offset, 8 + 32 + 8 * 128);
  }

  void save(const RawSegment& segment, std::size_t offset, std::size_t count) {
    _saved.emplace_back(offset, segment.bytes(offset, count));
  }

  void restore(key_t key) {
    RawSegment segment(key);
    for (const auto& [offset, bytes] : _saved) segment.write(offset, bytes);
  }

  /// Segment 0 is damaged; a fresh client answers from segment 1 and lays segment 0 anew.
  void expectLaidAnew(const std::string& what) {
    SCOPED_TRACE(what);
    StoreClient client;
    ASSERT_NO_THROW(client.open(keys));
    EXPECT_TRUE(answersFrom(client, table));
    EXPECT_EQ(client.access.vectorIP(), &client.access.ipVector(1));
    EXPECT_NE(client.err.find("connect share memory failed, will recreate it. shm_index=0"),
              std::string::npos);
    const RawSegment segment(keys.data0());
    EXPECT_EQ(segment.ipStatus(), 3u);
    EXPECT_EQ(segment.codeStatus(), 3u);
    const auto found = segment.regions();
    for (std::size_t i = 0; i < found.size(); ++i) {
      EXPECT_EQ(found[i].sizeWord, kBlockBytes[i]);
      EXPECT_EQ(found[i].size, kBlockBytes[i]);
      EXPECT_EQ(found[i].capacity, (kBlockBytes[i] - 32) / 128);
      EXPECT_EQ(found[i].nodeSize, 128u);
      EXPECT_EQ(found[i].count, 0u);
      EXPECT_EQ(segment.bytes(found[i].node(0), 8 * 128), std::string(8 * 128, '\0'));
    }
    restore(keys.data0());
  }

  void damageWord(std::size_t offset, std::uint64_t word, const std::string& what) {
    RawSegment(keys.data0()).write64(offset, word);
    expectLaidAnew(what + " = " + std::to_string(word));
  }

  const TestTable table = smallTable(1);
  ShmKeys keys;
  std::array<RawRegion, 9> regions{};

 private:
  std::vector<std::pair<std::size_t, std::string>> _saved;
};

TEST_F(DamagedImage, StatusesOtherThanReadyAreNotReadAndNotDamage) {
  for (const std::size_t offset : {std::size_t{0}, std::size_t{4}}) {
    for (const std::uint32_t status : {0u, 2u, 3u, 4u, 0x01000000u, 0xFFFFFFFFu}) {
      SCOPED_TRACE(status);
      RawSegment(keys.data0()).write32(offset, status);
      StoreClient client;
      client.open(keys);
      EXPECT_TRUE(answersFrom(client, table));
      EXPECT_EQ(client.access.vectorIP(), &client.access.ipVector(1));
      EXPECT_EQ(RawSegment(keys.data0()).word32(offset), status);
      EXPECT_EQ(RawSegment(keys.data0()).regions()[0].count, 5u);
      restore(keys.data0());
    }
  }
}

TEST_F(DamagedImage, BytesBehindTheStatusesAreIgnored) {
  RawSegment(keys.data0()).write(8, std::string(8, '\xFF'));
  StoreClient client;
  client.open(keys);
  EXPECT_TRUE(answersFrom(client, table));
  EXPECT_EQ(client.access.vectorIP(), &client.access.ipVector(0));
}

class DamagedRegion : public DamagedImage, public testing::WithParamInterface<std::size_t> {};

TEST_P(DamagedRegion, SizeWord) {
  const RawRegion& region = regions[GetParam()];
  for (const std::uint64_t word :
       {std::uint64_t{0}, std::uint64_t{31}, region.sizeWord - 8, region.sizeWord + 128,
        std::uint64_t{73695648}, UINT64_MAX - 7, UINT64_MAX})
    damageWord(region.offset, word, "size word");
}

TEST_P(DamagedRegion, VectorHead) {
  const RawRegion& region = regions[GetParam()];
  const std::size_t head = region.block();
  for (const std::uint64_t word : {std::uint64_t{0}, region.size + 128, UINT64_MAX})
    damageWord(head, word, "_iSize");
  for (const std::uint64_t word : {std::uint64_t{0}, region.capacity + 1, UINT64_MAX})
    damageWord(head + 8, word, "_iBlockCount");
  for (const std::uint64_t word : {std::uint64_t{0}, std::uint64_t{127}, UINT64_MAX})
    damageWord(head + 16, word, "_iBlockSize");
  for (const std::uint64_t word :
       {region.count + 1, region.capacity, region.capacity + 1, std::uint64_t{1} << 63, UINT64_MAX})
    damageWord(head + 24, word, "_iMaxIndex");
}

TEST_P(DamagedRegion, LengthWordOfANode) {
  const RawRegion& region = regions[GetParam()];
  const std::size_t last = region.node(region.count - 1);
  for (const std::uint64_t word :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{3}, std::uint64_t{121},
        std::uint64_t{127}, std::uint64_t{128}, std::uint64_t{1} << 56, UINT64_MAX})
    damageWord(last, word, "length word");
}

TEST_P(DamagedRegion, FieldHeadOfANode) {
  const RawRegion& region = regions[GetParam()];
  // Unknown types, a container of containers, a string that ends outside, a field in the wrong
  // place.
  for (const int head : {0x0E, 0x0F, 0x09, 0x08, 0x0A, 0x0D, 0x07, 0xF0, 0x20}) {
    RawSegment(keys.data0()).write(region.node(0) + 8, std::string(1, static_cast<char>(head)));
    expectLaidAnew("head " + std::to_string(head));
  }
}

INSTANTIATE_TEST_SUITE_P(Regions, DamagedRegion, testing::Values(0, 1, 4, 8));

TEST_F(DamagedImage, EveryVectorMarkAlone) {
  for (const RawRegion& region : regions) damageWord(region.block() + 16, 0x80000080, "mark");
}

TEST_F(DamagedImage, SecondSegmentIsLaidAnewWhileTheFirstAnswers) {
  RawSegment(keys.data1()).write64(24 + 16, 0);
  StoreClient client;
  client.open(keys);
  EXPECT_TRUE(answersFrom(client, table));
  EXPECT_EQ(client.access.vectorIP(), &client.access.ipVector(0));
  EXPECT_EQ(RawSegment(keys.data1()).ipStatus(), 3u);
  EXPECT_EQ(RawSegment(keys.data1()).codeStatus(), 3u);
}

TEST_F(DamagedImage, BothDamagedIsANewStart) {
  RawSegment(keys.data0()).write64(24 + 16, 0);
  RawSegment(keys.data1()).write64(regions[8].node(0), UINT64_MAX);
  StoreClient client;
  client.open(keys);
  EXPECT_EQ(client.access.hasInitialized(), 0);
  EXPECT_EQ(client.access.vectorIP(), &client.access.ipVector(0));
  ravel::IPInfo info;
  EXPECT_FALSE(client.api.getIPInfo(0x01000000, &info));
  EXPECT_NE(client.out.find("all share memory is NOT usable, use first block: 0"),
            std::string::npos);
  // Both can be written and published again.
  client.fill(1, table);
  client.access.CopyShareMemory(1, 0);
  StoreClient next;
  next.open(keys);
  EXPECT_TRUE(answersFrom(next, table));
}

TEST_F(DamagedImage, RandomBytesNeverCrashAndLeaveAWholeLayout) {
  std::mt19937_64 random(5);
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    {
      RawSegment segment(keys.data0());
      const std::size_t hits = 1 + random() % 6;
      for (std::size_t hit = 0; hit < hits; ++hit) {
        const RawRegion& region = regions[random() % regions.size()];
        const std::size_t offset = region.offset + random() % (8 + 32 + 3 * 128);
        segment.write(offset, std::string(1 + random() % 8, static_cast<char>(random())));
      }
    }
    StoreClient client;
    ASSERT_NO_THROW(client.open(keys));
    // A byte inside a name or an id is a different table, not damage that can be seen.
    EXPECT_EQ(client.access.hasInitialized(), 3);
    for (std::uint32_t ip = 0; ip < 0x06000000u; ip += 0x00400000u) {
      IPHumanMessage message;
      client.api.getIPInfo(ip, &message);
    }
    for (const key_t key : {keys.data0(), keys.data1()}) {
      const auto found = RawSegment(key).regions();
      for (std::size_t i = 0; i < found.size(); ++i) {
        ASSERT_EQ(found[i].sizeWord, kBlockBytes[i]);
        ASSERT_LE(found[i].count, found[i].capacity);
      }
    }
    restore(keys.data0());
  }
}

TEST_F(DamagedImage, SegmentFullOfGarbageIsLaidAnew) {
  std::mt19937_64 random(6);
  std::string garbage(1 << 16, '\0');
  for (char& byte : garbage) byte = static_cast<char>(random());
  {
    RawSegment segment(keys.data0());
    for (std::size_t at = 0; at < segment.size(); at += garbage.size())
      segment.write(at, garbage.substr(0, std::min(garbage.size(), segment.size() - at)));
  }
  StoreClient client;
  ASSERT_NO_THROW(client.open(keys));
  EXPECT_TRUE(answersFrom(client, table));
  const RawSegment laid(keys.data0());
  EXPECT_EQ(laid.ipStatus(), 3u);
  for (const RawRegion& region : laid.regions()) {
    EXPECT_EQ(region.count, 0u);
    EXPECT_EQ(laid.bytes(region.node(0), region.sizeWord - 32),
              std::string(region.sizeWord - 32, '\0'));
  }
}

/// A start found one segment good and laid the other anew; then the service sends new names.
TEST_F(DamagedImage, CodeRefreshAfterwardsKeepsTheOnlyGoodIpHalf) {
  RawSegment(keys.data1()).write64(24 + 16, 0);
  StoreClient client;
  client.open(keys);
  ASSERT_TRUE(answersFrom(client, table));

  const auto service = std::make_shared<FakeService>();
  const TestTable newer = smallTable(2);
  service->codes = [&](std::vector<ravel::CodeInfo>& codes) {
    for (const auto& entries : newer.codes)
      codes.insert(codes.end(), entries.begin(), entries.end());
  };
  client.access.tolvarPrx() = fakeProxy(service);
  client.access.isCheckingCode() = true;
  {
    CapturedOutput quiet;
    EXPECT_TRUE(client.access.checkCodeChangeRequest());
  }
  EXPECT_FALSE(client.access.isCheckingCode());

  for (const key_t key : {keys.data0(), keys.data1()}) {
    const RawSegment raw(key);
    EXPECT_EQ(raw.ipStatus(), 1u);
    EXPECT_EQ(raw.codeStatus(), 1u);
    EXPECT_EQ(raw.ranges(), rawRanges(table));
    for (int k = 0; k < 8; ++k) EXPECT_EQ(raw.codes(k), rawCodes(newer, k));
  }
}

/// The same when both segments say ready but hold different tables, as a crash between the two
/// publications of another process leaves them.
TEST_F(DamagedImage, CodeRefreshDoesNotBringBackAnOlderIpHalf) {
  {
    StoreClient writer;
    writer.open(keys);
    writer.fill(1, smallTable(7));
  }
  StoreClient client;
  client.open(keys);
  ASSERT_TRUE(answersFrom(client, table)) << "segment 0 wins";

  const auto service = std::make_shared<FakeService>();
  service->codes = [&](std::vector<ravel::CodeInfo>& codes) {
    for (const auto& entries : table.codes)
      codes.insert(codes.end(), entries.begin(), entries.end());
  };
  client.access.tolvarPrx() = fakeProxy(service);
  client.access.isCheckingCode() = true;
  {
    CapturedOutput quiet;
    client.access.checkCodeChangeRequest();
  }
  for (const key_t key : {keys.data0(), keys.data1()})
    EXPECT_EQ(RawSegment(key).ranges(), rawRanges(table));
  StoreClient next;
  next.open(keys);
  EXPECT_TRUE(answersFrom(next, table));
}

}  // namespace
