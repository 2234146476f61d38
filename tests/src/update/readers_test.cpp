#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/src/update/scene.h"

namespace tolvar_test {
namespace {

constexpr std::uint32_t kVersions = 150;
constexpr std::uint32_t kRanges = 200;

/// What a reader found wrong, counted.
struct Findings {
  std::atomic<long> lookups{0};
  std::atomic<long> missing{0};
  std::atomic<long> torn{0};
  std::atomic<long> older{0};
};

void readNumbers(TolvarAPI& client, const std::atomic<bool>& stop, Findings& findings) {
  std::uint32_t newest = 0;
  for (std::uint32_t i = 0; !stop; ++i) {
    const std::uint32_t start = kFirstAddress + (i * 37) % kRanges * 256;
    ravel::IPInfo info;
    if (!client.getIPInfo(start + i % 128, &info)) {
      ++findings.missing;
      continue;
    }
    const std::uint32_t version = versionOf(start, info);
    if (version == 0) ++findings.torn;
    if (version < newest) ++findings.older;
    newest = std::max(newest, version);
    if (client.getIPInfo(start + 128 + i % 128, &info)) ++findings.torn;
    ++findings.lookups;
  }
}

/// The version at the start of a name like "v12 oper"; 0 when there is none.
int versionIn(const std::string& name) {
  return name.size() > 1 && name[0] == 'v' ? std::atoi(name.c_str() + 1) : 0;
}

void readNames(TolvarAPI& client, const std::atomic<bool>& stop, Findings& findings) {
  for (std::uint32_t i = 0; !stop; ++i) {
    IPHumanMessage message;
    if (!client.getIPInfo(kFirstAddress + i % kRanges * 256, &message)) {
      ++findings.missing;
      continue;
    }
    // Names are there when the codes are of the range's version; all of one answer agree.
    const int country = versionIn(message.m_country);
    if (versionIn(message.m_oper) != country || versionIn(message.m_apn) != country)
      ++findings.torn;
    ++findings.lookups;
  }
}

TEST(Readers, NeverSeeATornOrMixedAnswerWhileTablesAreReplaced) {
  StepScene scene(kRanges);
  TableServer server(scene.service, 60);
  server.publish(selfCheckingTable(1, kRanges));
  ASSERT_TRUE(scene.refresh());

  Findings findings;
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i)
    readers.emplace_back([&] { readNumbers(scene.client, stop, findings); });
  readers.emplace_back([&] { readNames(scene.client, stop, findings); });

  bool refreshed = true;
  for (std::uint32_t version = 2; version <= kVersions || findings.lookups < 2000; ++version) {
    server.publish(selfCheckingTable(version, kRanges));
    refreshed = scene.refresh() && refreshed;
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_TRUE(refreshed);
  EXPECT_EQ(findings.missing, 0);
  EXPECT_EQ(findings.torn, 0);
  EXPECT_EQ(findings.older, 0);
  EXPECT_EQ(digestOf(SegmentView(scene.keys.data0()).ranges()), server.digest());
}

TEST(Readers, SeeNothingOrTheWholeTableDuringAColdStart) {
  Scene scene;
  plantSmallSegments(scene.keys, kRanges, 8);
  TableServer server(scene.service, 60);
  server.publish(selfCheckingTable(1, kRanges));
  TolvarAPI client;
  std::atomic<bool> stop{false};
  std::atomic<long> disappeared{0}, torn{0};
  std::thread reader([&] {
    bool seen = false;
    for (std::uint32_t i = 0; !stop; ++i) {
      const std::uint32_t start = kFirstAddress + i % kRanges * 256;
      ravel::IPInfo info;
      const bool found = client.getIPInfo(start, &info);
      if (seen && !found) ++disappeared;
      if (found && versionOf(start, info) != 1) ++torn;
      seen = seen || found;
    }
  });
  EXPECT_TRUE(client.initialize(scene.options()));
  stop = true;
  reader.join();
  EXPECT_EQ(disappeared, 0);
  EXPECT_EQ(torn, 0);
}

TEST(Readers, StatusMayBeAskedForFromAnyThreadMeanwhile) {
  StepScene scene(kRanges);
  TableServer server(scene.service);
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      const TolvarStatus status = scene.client.status();
      EXPECT_TRUE(status.digest == "0" || status.digest.size() == 32);
      if (status.ipReady) {
        EXPECT_EQ(status.ranges, kRanges);
      }
    }
  });
  for (std::uint32_t version = 1; version <= 20; ++version) {
    server.publish(selfCheckingTable(version, kRanges));
    EXPECT_TRUE(scene.refresh());
  }
  stop = true;
  reader.join();
}

TEST(ReadersDeathTest, DestroyingAClientInsideOneAbortsWithAMessage) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        auto client = std::make_unique<TolvarAPI>();
        const TolvarReader reader = client->read();
        client.reset();
      },
      "the waiting thread is in no read section");
}

TEST(ReadersDeathTest, InitializingAClientInsideOneAbortsWithAMessage) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        TolvarAPI client;
        const TolvarReader reader = client.read();
        client.initialize(TolvarAPIOptions());
      },
      "the waiting thread is in no read section");
}

}  // namespace
}  // namespace tolvar_test
