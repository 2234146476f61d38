#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "service/content_digest.h"
#include "service/lookup_service.h"
#include "tests/support/manual_clock.h"

namespace tolvar::service {
namespace {

/// A client's download as its contract has it, one page a step.
class Download {
 public:
  /// Asks for one page. True when the download has ended.
  bool step(const LookupService& service, std::uint32_t size) {
    const ravel::downloadInfo page = service.totalDownloadIPInfo(
        static_cast<std::uint32_t>(_position >> 32), static_cast<std::uint32_t>(_position), size);
    const std::uint64_t end = std::uint64_t{page.highMaxIndex} << 32 | page.lowMaxIndex;
    if (page.isdownloadReset == 1) _gathered.clear();
    if (page.IPContent.empty() || _position >= end) return true;
    std::uint64_t position = 0;
    for (const ravel::IPProperty& range : page.IPContent) {
      const std::uint64_t next = std::uint64_t{range.timesTamp} << 32 | range.sequence;
      EXPECT_GT(next, position) << "cursors of a page increase";
      position = next;
      _gathered.push_back(range);
    }
    _position = position;
    return _position >= end;
  }

  const std::vector<ravel::IPProperty>& gathered() const { return _gathered; }

 private:
  std::uint64_t _position = 0;
  std::vector<ravel::IPProperty> _gathered;
};

class Paging : public testing::TestWithParam<unsigned> {
 protected:
  std::uint32_t below(std::uint32_t bound) {
    return std::uniform_int_distribution<std::uint32_t>(0, bound - 1)(random);
  }

  /// Random disjoint ranges with holes; all carry one mark in their place.
  TableData randomTable(std::uint32_t most) {
    TableData data;
    const std::uint32_t size = 1 + below(most);
    std::uint32_t next = 0;
    for (std::uint32_t i = 0; i < size; ++i) {
      ravel::IPProperty& range = data.ranges.emplace_back();
      range.startIP = next + below(3);
      range.endIP = range.startIP + below(1000);
      range.place = marks;
      range.oper = below(100);
      next = range.endIP + 1;
    }
    std::shuffle(data.ranges.begin(), data.ranges.end(), random);
    ++marks;
    return data;
  }

  std::mt19937 random{GetParam()};
  std::int64_t marks = 1;
  tolvar_test::ManualClock clock;
  LookupService service{clock};
};

TEST_P(Paging, PagesOfAnySizeReassembleTheTable) {
  const auto version = service.publish(randomTable(400));
  Download download;
  for (int steps = 0; !download.step(service, 1 + below(60)); ++steps) ASSERT_LT(steps, 500);
  ASSERT_EQ(download.gathered().size(), version->ranges().size());
  EXPECT_EQ(contentDigest(download.gathered()), version->digest());
}

TEST_P(Paging, ATableThatChangesHalfWayNeverYieldsAMixture) {
  service.publish(randomTable(400));
  Download download;
  for (int steps = 0; !download.step(service, 1 + below(60)); ++steps) {
    ASSERT_LT(steps, 2000);
    if (steps < 200 && below(4) == 0) service.publish(randomTable(400));
  }
  EXPECT_EQ(contentDigest(download.gathered()), service.current()->digest());
}

// Servers behind one name may hold different versions for a while, and a client that is moved from
// one to the other may come with a cursor from the future.
TEST_P(Paging, AMoveToAnOlderServerYieldsTheOlderTableWhole) {
  service.publish(randomTable(400));
  clock.advance(5000);
  LookupService newer(clock);
  newer.publish(randomTable(400));
  Download download;
  const std::uint32_t moveAt = below(4);
  bool isOver = false;
  for (std::uint32_t i = 0; i < moveAt && !isOver; ++i)
    isOver = download.step(newer, 1 + below(60));
  for (int steps = 0; !isOver; ++steps) {
    ASSERT_LT(steps, 500);
    isOver = download.step(service, 1 + below(60));
  }
  const std::string digest = contentDigest(download.gathered());
  EXPECT_TRUE(digest == service.current()->digest() || digest == newer.current()->digest());
}

INSTANTIATE_TEST_SUITE_P(Seeds, Paging, testing::Range(1u, 41u));

}  // namespace
}  // namespace tolvar::service
