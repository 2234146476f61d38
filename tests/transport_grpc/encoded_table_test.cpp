#include "tools/tolvard/server/encoded_table.h"

#include <gmock/gmock.h>
#include <grpcpp/impl/codegen/proto_utils.h>

#include <set>
#include <stop_token>
#include <thread>

#include "tests/transport_grpc/test_tables.h"
#include "tolvar.pb.h"

namespace {

using tolvar::EncodedTable;
using tolvar_test::describe;

/// Address of the first byte of an answer: equal for answers that share memory.
const void* memoryOf(const grpc::ByteBuffer& bytes) {
  std::vector<grpc::Slice> slices;
  EXPECT_TRUE(bytes.Dump(&slices).ok());
  return slices.at(0).begin();
}

ravel::downloadInfo decoded(const grpc::ByteBuffer& bytes, const tolvar::wire::PageQuery& query) {
  grpc::ByteBuffer copy(bytes);
  tolvar::v1::Page message;
  EXPECT_TRUE(grpc::SerializationTraits<tolvar::v1::Page>::Deserialize(&copy, &message).ok());
  ravel::downloadInfo page;
  tolvar::wire::decodePage(message, query, page);
  return page;
}

TEST(EncodedTable, PagesOfTheStandardSizeAreEncodedOnceForAllThreads) {
  const auto version = tolvar_test::makeService(100001)->current();
  const EncodedTable table(version);
  std::vector<std::thread> threads;
  std::vector<std::set<const void*>> seen(4);
  for (auto& mine : seen)
    threads.emplace_back([&] {
      for (const std::uint32_t sequence : {0u, 50000u, 100000u}) {
        const auto answer = table.page({version->timesTamp(), sequence, 50000});
        EXPECT_TRUE(answer.shared);
        mine.insert(memoryOf(answer.bytes));
      }
      const auto first = table.page({0, 0, 4294967295u});
      EXPECT_TRUE(first.shared);
      mine.insert(memoryOf(first.bytes));
      mine.insert(memoryOf(table.codes()));
    });
  for (std::thread& thread : threads) thread.join();
  for (const auto& mine : seen) EXPECT_EQ(mine, seen[0]);
  EXPECT_EQ(seen[0].size(), 4u);  // three pages and the codes
}

TEST(EncodedTable, AnyPageEqualsTheServicesOwn) {
  const auto service = tolvar_test::makeService(70000);
  const EncodedTable table(service->current());
  std::mt19937_64 random(3);
  const std::uint32_t stamp = service->current()->timesTamp();
  for (int round = 0; round < 30; ++round) {
    const tolvar::wire::PageQuery query{
        round % 5 == 0 ? static_cast<std::uint32_t>(random()) : stamp,
        static_cast<std::uint32_t>(random() % 70100),
        static_cast<std::uint32_t>(1 + random() % 60000)};
    const auto answer = table.page(query);
    const ravel::downloadInfo page = decoded(answer.bytes, query);
    const ravel::downloadInfo expected =
        service->totalDownloadIPInfo(query.high, query.low, query.size);
    ASSERT_EQ(describe(page.IPContent), describe(expected.IPContent));
    EXPECT_EQ(page.isdownloadReset, expected.isdownloadReset);
    EXPECT_EQ(page.highMaxIndex, expected.highMaxIndex);
    EXPECT_EQ(page.lowMaxIndex, expected.lowMaxIndex);
  }
}

TEST(EncodedTable, TheLastPageSaysSo) {
  const auto version = tolvar_test::makeService(50001)->current();
  const EncodedTable table(version);
  EXPECT_FALSE(table.page({0, 0, 50000}).last);
  EXPECT_TRUE(table.page({version->timesTamp(), 50000, 50000}).last);
  EXPECT_TRUE(table.page({version->timesTamp(), 50001, 50000}).last);
}

TEST(EncodedTable, EverythingCanBeEncodedAhead) {
  const EncodedTable table(tolvar_test::makeService(50001)->current());
  EXPECT_TRUE(table.encodeAll());
  EXPECT_TRUE(table.page({0, 0, 50000}).shared);
}

TEST(EncodedTable, EncodingAheadEndsWhenItIsToldTo) {
  const EncodedTable table(tolvar_test::makeService(50001)->current());
  std::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(table.encodeAll(stop.get_token()));
  EXPECT_TRUE(table.page({0, 0, 50000}).shared);  // when asked for, as ever
}

TEST(EncodedTableCache, KeepsTheCurrentVersionAndFollowsTheNext) {
  const auto service = tolvar_test::makeService(10);
  tolvar::EncodedTableCache cache;
  const auto first = cache.of(service->current());
  EXPECT_EQ(cache.of(service->current()), first);
  const std::weak_ptr<const EncodedTable> old = first;
  service->publish({tolvar_test::makeRanges(11), tolvar_test::makeCodes()});
  const auto second = cache.of(service->current());
  EXPECT_NE(second, first);
  EXPECT_EQ(old.use_count(), 1);  // only the test still holds it
  EXPECT_NE(cache.of(first->version()),
            second);  // a call that began earlier gets what it asked for
  EXPECT_EQ(cache.of(service->current()), second);
}

TEST(EncodedTableCache, KeepsNothingOfAVersionThatWasNotPreparedToTheEnd) {
  const auto version = tolvar_test::makeService(10)->current();
  const long before = version.use_count();
  tolvar::EncodedTableCache cache;
  std::stop_source stop;
  stop.request_stop();
  cache.prepare(version, stop.get_token());
  EXPECT_EQ(version.use_count(), before);
  cache.prepare(version);
  EXPECT_GT(version.use_count(), before);
}

}  // namespace
