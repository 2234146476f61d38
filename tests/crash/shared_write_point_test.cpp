#include "platform/shared_write_point.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

namespace tolvar_test {
namespace {

int points = 0;
std::string last;

/// Listens for a scope, where the build has points at all.
class Listening {
 public:
  Listening() {
    points = 0;
    last.clear();
#ifdef TOLVAR_SHARED_WRITE_POINTS
    qel::sharedWriteListener = [](const char* what) {
      ++points;
      last = what;
    };
#endif
  }
  ~Listening() {
#ifdef TOLVAR_SHARED_WRITE_POINTS
    qel::sharedWriteListener = nullptr;
#endif
  }
};

std::vector<char> numbered(std::size_t size) {
  std::vector<char> bytes(size);
  std::iota(bytes.begin(), bytes.end(), static_cast<char>(1));
  return bytes;
}

void expectBulkOperations(std::size_t size) {
  const std::vector<char> from = numbered(size);
  std::vector<char> to(size + 1, 'x');
  qel::sharedCopy("copy", to.data(), from.data(), size);
  EXPECT_TRUE(std::equal(from.begin(), from.end(), to.begin()));
  EXPECT_EQ(to.back(), 'x');

  // The source and where it is moved to overlap by all but a few bytes.
  std::vector<char> moved = from;
  moved.resize(size + 10, 'x');
  qel::sharedMoveUp("move", moved.data() + 9, moved.data(), size);
  EXPECT_TRUE(std::equal(from.begin(), from.end(), moved.begin() + 9));
  EXPECT_EQ(moved.back(), 'x');

  qel::sharedZero("zero", to.data(), size);
  EXPECT_TRUE(std::all_of(to.begin(), to.end() - 1, [](char c) { return c == 0; }));
  EXPECT_EQ(to.back(), 'x');
}

TEST(SharedWritePoint, BulkOperationsDoTheSameWhetherSomebodyListensOrNot) {
  for (const std::size_t size : {0, 1, 8, 71, 72, 73, 136, 288, 1000, 4096, 100001}) {
    SCOPED_TRACE(size);
    expectBulkOperations(size);
    const Listening listening;
    expectBulkOperations(size);
  }
}

TEST(SharedWritePoint, IsPassedBeforeEveryChangeAndBetweenThePiecesOfLargeOnes) {
  const Listening listening;
  qel::sharedWritePoint("word");
  EXPECT_EQ(points, qel::kSharedWritePoints ? 1 : 0);
  std::vector<char> to(1 << 20);
  const std::vector<char> from = numbered(to.size());
  qel::sharedCopy("content", to.data(), from.data(), to.size());
  EXPECT_EQ(points > 3, qel::kSharedWritePoints);
  EXPECT_EQ(last, qel::kSharedWritePoints ? "content" : "");
}

TEST(SharedWritePoint, NobodyIsToldWhenNobodyListens) {
  points = 0;
  qel::sharedWritePoint("word");
  EXPECT_EQ(points, 0);
}

}  // namespace
}  // namespace tolvar_test
