#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "tests/faults/forked_case.h"
#include "tests/faults/host_life.h"
#include "tests/faults/injected_calls.h"
#include "tests/support/plant.h"
#include "tests/support/temp_dir.h"

namespace tolvar_test {
namespace {

constexpr int kSecondsPerLife = 40;
constexpr int kMostUses = 500;

/// A call that fails with an error, and what of it must be found in the log or the output: one of
/// these texts. None for a failure that costs nothing; some uses are repeated at once, and one
/// failure of those needs no word.
struct Case {
  const char* call;
  int error;
  std::vector<std::string> said;
  bool repeated = false;
};

std::ostream& operator<<(std::ostream& out, const Case& with) {
  return out << with.call << " " << strerrorname_np(with.error);
}

class CallFaults final : public FaultSource {
 public:
  explicit CallFaults(const Fault& fault) : _calls(fault) {}
  bool fired() const override { return InjectedCalls::fired(); }
  void heal() override { InjectedCalls::heal(); }

 private:
  InjectedCalls _calls;
};

bool isSaid(const std::vector<std::string>& texts) {
  if (texts.empty()) return true;
  std::string all = readFile("output");
  if (access(HostLife::kLogFile, R_OK) == 0) all += readFile(HostLife::kLogFile);
  for (const std::string& text : texts)
    if (all.find(text) != std::string::npos) return true;
  return false;
}

constexpr const char* kNotReached = "not reached\n";
constexpr const char* kNotSaid = "nothing is said about it\n";

/// One life with a fault. Small segments spare time; those of fresh keys have their full size.
std::string liveWith(const Case& with, int first, bool lasting, bool fresh) {
  const TempDir directory;
  const ShmKeys keys;
  if (!fresh) plantSmallSegments(keys, 30, 8);
  return runForked(directory.path(), kSecondsPerLife, [&] {
    CallFaults faults({with.call, with.error, first, lasting});
    std::string problems = HostLife(keys, faults).live();
    if (!faults.fired()) return problems + kNotReached;
    if (!isSaid(with.said)) problems += kNotSaid;
    return problems;
  });
}

class SystemCallFaults : public testing::TestWithParam<Case> {
 protected:
  /// Lives with the first, second, third ... use failing until the fault is not reached any more.
  void failEachUse(bool lasting) {
    int uses = 0;
    int silent = 0;
    for (bool reached = true; reached; ++uses) {
      ASSERT_LT(uses, kMostUses) << "the uses do not come to an end";
      const std::string problems = liveWith(GetParam(), uses + 1, lasting, false);
      reached = problems.find(kNotReached) == std::string::npos;
      if (GetParam().repeated && problems == kNotSaid) {
        ++silent;
      } else {
        EXPECT_EQ(problems, reached ? "" : kNotReached) << "use " << uses + 1;
      }
    }
    EXPECT_GT(uses, 1) << "the call is never used";
    if (lasting) {
      EXPECT_LT(silent, uses / 2) << "repeating does not help, so it is told";
    }
  }
};

TEST_P(SystemCallFaults, EachUseFailingOnceCostsNothingGood) { failEachUse(false); }

TEST_P(SystemCallFaults, AllUsesFailingForAWhileCostNothingGood) { failEachUse(true); }

/// Uses of a start that finds no segments behind its keys and makes them.
TEST(FreshKeys, AFailureWhileSegmentsOfFullSizeAreMadeCostsNothingGood) {
  constexpr int kUsesOfTheStart = 6;
  for (const char* call : {"shmget", "shmat", "shmctl"}) {
    const Case with{call, ENOMEM, {}};
    for (int use = 1; use <= kUsesOfTheStart; ++use)
      EXPECT_EQ(liveWith(with, use, false, true), "") << call << ", use " << use;
  }
}

const Case kCases[] = {
    {"shmget", ENOMEM, {"shmget failed", "share memory was replaced", "cannot be looked at"}},
    {"shmget", EACCES, {"shmget failed", "share memory was replaced", "cannot be looked at"}},
    {"shmat", ENOMEM, {"shmat failed"}},
    {"shmdt", EINVAL, {}},
    {"shmctl", ENOMEM, {"shmctl failed", "cannot be looked at"}},
    {"semget", ENOSPC, {"semget failed"}},
    {"semctl", EACCES, {"semctl failed"}},
    {"semtimedop", ENOMEM, {"semtimedop failed"}, true},
    {"semtimedop", EAGAIN, {}},
    {"open", EMFILE, {"fopen fail", "cannot open downloadPos.dat"}, true},
    {"close", EIO, {}},
    {"write", ENOSPC, {"write fail"}, true},
    {"pwrite", EIO, {"cannot write downloadPos.dat"}},
    {"posixFallocate", ENOSPC, {"cannot reserve"}},
    {"mkdir", EACCES, {}},
    {"mmap", ENOMEM, {"cannot map downloadPos.dat"}},
    {"munmap", ENOMEM, {}},
    {"pthreadCreate", EAGAIN, {}},
#ifndef __SANITIZE_THREAD__  // which does not know membarrier, so it is not used then
    {"membarrier", EPERM, {}},
#endif
};

INSTANTIATE_TEST_SUITE_P(Calls, SystemCallFaults, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& one) {
                           return std::string(one.param.call) + "_" +
                                  strerrorname_np(one.param.error);
                         });

}  // namespace
}  // namespace tolvar_test
