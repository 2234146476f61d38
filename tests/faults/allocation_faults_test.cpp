#include <gtest/gtest.h>

#include "tests/faults/failing_allocations.h"
#include "tests/faults/forked_case.h"
#include "tests/faults/host_life.h"
#include "tests/support/plant.h"
#include "tests/support/temp_dir.h"

namespace tolvar_test {
namespace {

constexpr int kSecondsPerLife = 12;
/// A life takes some thousand allocations. All of the first are failed, then ever fewer.
constexpr std::int64_t kSteps = 16;

class AllocationFaults final : public FaultSource {
 public:
  AllocationFaults(std::int64_t first, std::int64_t count) {
    spareThisThread(true);
    armAllocations(first, count);
  }
  ~AllocationFaults() override {
    healAllocations();
    spareThisThread(false);
  }
  AllocationFaults(const AllocationFaults&) = delete;
  AllocationFaults& operator=(const AllocationFaults&) = delete;

  bool fired() const override { return allocationFailed(); }
  void heal() override { healAllocations(); }
  void enterClient(bool entered) override { spareThisThread(!entered); }
};

constexpr const char* kNotReached = "not reached\n";

/// Problems of a life in the working directory.
std::string live(const ShmKeys& keys, std::int64_t first, std::int64_t count) {
  plantSmallSegments(keys, 30, 8);
  AllocationFaults faults(first, count);
  std::string problems = HostLife(keys, faults).live();
  return faults.fired() ? problems : problems + kNotReached;
}

std::string liveForked(std::int64_t first, std::int64_t count) {
  const TempDir directory;
  const ShmKeys keys;
  const ShmKeys warmUpKeys;
  return runForked(directory.path(), kSecondsPerLife, [&] {
    // What a thread keeps for its next use is in place after one life.
    live(warmUpKeys, INT64_MAX, 1);
    const std::int64_t before = liveAllocations();
    std::string problems = live(keys, first, count);
    if (!problems.empty()) return problems;
    const std::int64_t left = liveAllocations() - before;
    return left > 0 ? std::to_string(left) + " allocations are never freed" : std::string();
  });
}

class FailingMemory : public testing::TestWithParam<int> {};

TEST_P(FailingMemory, NoAllocationThatFailsCostsAnythingGood) {
  bool reached = true;
  int lives = 0;
  std::int64_t first = 1;
  for (; reached; first += 1 + first / kSteps, ++lives) {
    const std::string problems = liveForked(first, GetParam());
    reached = problems.find(kNotReached) == std::string::npos;
    EXPECT_EQ(problems, reached ? "" : kNotReached) << "allocation " << first;
  }
  EXPECT_GT(first, 1000) << "a life takes more allocations than that";
  printf("%d lives, up to allocation %lld\n", lives, static_cast<long long>(first));
}

INSTANTIATE_TEST_SUITE_P(InARow, FailingMemory, testing::Values(1, 10, 1000));

}  // namespace
}  // namespace tolvar_test
