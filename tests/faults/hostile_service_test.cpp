#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <fstream>
#include <random>
#include <stdexcept>

#include "tests/src/update/scene.h"

/// A service that answers nonsense for ten hours. Whatever it does, the client asks and writes no
/// more than its time allows, its memory stays bounded, and the last good table answers.
namespace tolvar_test {
namespace {

constexpr std::int64_t kHourMillis = 3600000;
constexpr std::int64_t kHours = 10;
constexpr std::int64_t kCallMillis = 50;
constexpr std::uint32_t kEndless = UINT32_MAX;

/// For what a client keeps, and for the log of the test, which is far more.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::int64_t kRoomKilobytes = 600 * 1024;
#else
constexpr std::int64_t kRoomKilobytes = 300 * 1024;
#endif

/// A clock that waits move, and that calls of the service move too. Ends a client at its end.
class DayClock final : public qel::Clock {
 public:
  timeval timeOfDay() const override {
    return {static_cast<time_t>(1700000000 + _millis / 1000), _millis % 1000 * 1000};
  }
  std::int64_t steadyMillis() const override { return _millis; }
  bool wait(qel::ZU_ThreadCond&, qel::ZU_ThreadMutex&, int milliseconds) override {
    spend(milliseconds);
    return false;
  }
  void spend(std::int64_t milliseconds) {
    _millis += milliseconds;
    if (_millis >= _end && atEnd) atEnd();
  }
  void endAfter(std::int64_t milliseconds) { _end = _millis + milliseconds; }

  std::function<void()> atEnd;

 private:
  std::atomic<std::int64_t> _millis{5000};
  std::int64_t _end = INT64_MAX;
};

std::int64_t residentKilobytes() {
  std::ifstream in("/proc/self/status");
  for (std::string word; in >> word;) {
    if (word != "VmRSS:") continue;
    std::int64_t value = 0;
    in >> value;
    return value;
  }
  return 0;
}

/// A client with a good first version, on its own thread's steps.
struct HostileScene : Scene {
  DayClock clock;
  ClockedClient client{clock};
  tolvar::ClientTestAccess access{client};
  const Table good = selfCheckingTable(1, 25);
  int calls = 0;

  HostileScene() {
    plantSmallSegments(keys, 64, 8);
    access.tolvarPrx() = fakeProxy(service);
    access.fTolvarPrx() = fakeFastProxy(service);
    access.InitializeShareMemory(keys.data0(), keys.data1(), keys.size());
    {
      TableServer server(service, 10);
      server.publish(good);
      access.checkChange();
      while (access.isTotalDownLoading() || access.isCheckingCode()) {
        access.totalDownloadRequest();
        access.checkCodeChangeRequest();
      }
    }
    clock.atEnd = [this] { client.terminate(); };
    output.take();
    output.out.clear();
    output.err.clear();
  }

  /// Every call from now on goes through here.
  void answerWith(std::function<void(ravel::CheckInfo&)> check,
                  std::function<void(ravel::downloadInfo&)> page,
                  std::function<void(std::vector<ravel::CodeInfo>&)> codes) {
    service->checkChange = [=, this](const ravel::CheckReq&, ravel::CheckInfo& info) {
      spend();
      check(info);
    };
    service->download = service->firstDownload =
        [=, this](std::uint32_t, std::uint32_t, std::uint32_t, ravel::downloadInfo& info) {
          spend();
          page(info);
        };
    service->codes = [=, this](std::vector<ravel::CodeInfo>& entries) {
      spend();
      codes(entries);
    };
  }

  void spend() {
    ++calls;
    clock.spend(kCallMillis);
  }

  void liveTenHours() {
    clock.endAfter(kHours * kHourMillis);
    access.run();
    output.take();
  }

  void expectGoodTableAnswers() {
    for (const ravel::IPProperty& range : good.rows) {
      ravel::IPInfo info;
      ASSERT_TRUE(client.getIPInfo(range.startIP, &info));
      ASSERT_EQ(versionOf(range.startIP, info), 1u);
    }
    expectGoodNamesAnswer();
  }
  void expectGoodNamesAnswer() { EXPECT_EQ(client.getOperByID(1), "v1 oper"); }

  std::size_t lines() const { return output.out.size() + output.err.size(); }
  bool saysError(const std::string& text) const {
    for (const OutputLine& line : output.err)
      if (line.text.find(text) != std::string::npos) return true;
    return false;
  }
};

void reset(ravel::CheckInfo& info) { info.isReset = 1; }

ravel::IPProperty rowAt(std::uint32_t cursor) {
  ravel::IPProperty range = row(cursor * 256, cursor * 256 + 127);
  range.sequence = cursor;
  return range;
}

std::function<void(ravel::downloadInfo&)> pageOf(std::vector<ravel::IPProperty> rows,
                                                 std::uint32_t end) {
  return [=](ravel::downloadInfo& page) {
    page.lowMaxIndex = end;
    page.IPContent = rows;
  };
}

void throwStandard() { throw std::runtime_error("hostile"); }
void throwOwn() { throw qel::ZU_Exception("hostile"); }
void throwNoMemory() { throw std::bad_alloc(); }
void throwNumber() { throw 42; }

/// A way to be hostile that never completes a table, and what the log says of it.
struct Way {
  const char* name;
  std::function<void(ravel::downloadInfo&)> page;
  void (*fail)();  ///< when set, what every other call does
  const char* said;
};

std::ostream& operator<<(std::ostream& out, const Way& way) { return out << way.name; }

class HostileService : public testing::TestWithParam<Way> {};

TEST_P(HostileService, LastGoodTableAnswersForTenHoursAtBoundedCost) {
  const Way& way = GetParam();
  HostileScene scene;
  bool failing = false;
  scene.answerWith(
      [&](ravel::CheckInfo& info) {
        // Every second check fails as well, so that both the check and the download are met.
        if (way.fail != nullptr && (failing = !failing)) way.fail();
        reset(info);
      },
      way.page,
      [&](std::vector<ravel::CodeInfo>& codes) {
        if (way.fail != nullptr) way.fail();
        codes = scene.good.codes;
      });
  const std::int64_t before = residentKilobytes();
  scene.liveTenHours();
  scene.expectGoodTableAnswers();
  EXPECT_LT(residentKilobytes() - before, kRoomKilobytes);
  // A step that fails is repeated once a second after a few faster attempts, and written about in
  // four lines at most.
  EXPECT_LT(scene.calls, 3 * kHours * 3600);
  EXPECT_LT(scene.lines(), 16u * kHours * 3600);
  EXPECT_GE(scene.calls, 60) << "it goes on asking";
  if (way.said != nullptr) {
    EXPECT_TRUE(scene.saysError(way.said));
  } else {
    EXPECT_FALSE(scene.client.status().lastError.empty());
  }
}

const Way kWays[] = {
    {"CursorStandsStill", pageOf({rowAt(0)}, kEndless), nullptr, nullptr},
    {"CursorGoesBack",
     [back = std::make_shared<std::uint32_t>(1000)](ravel::downloadInfo& page) {
       pageOf({rowAt(*back == 0 ? 0 : --*back)}, kEndless)(page);
     },
     nullptr, nullptr},
    {"TableBeginsAnew",
     [forward = std::make_shared<bool>(false)](ravel::downloadInfo& page) {
       *forward = !*forward;
       page.isdownloadReset = *forward ? 0 : 1;
       pageOf({rowAt(*forward ? 10 : 5)}, kEndless)(page);
     },
     nullptr, nullptr},
    {"StandardException", [](ravel::downloadInfo&) { throwStandard(); }, throwStandard, "hostile"},
    {"OwnException", [](ravel::downloadInfo&) { throwOwn(); }, throwOwn, "hostile"},
    {"NoMemory", [](ravel::downloadInfo&) { throwNoMemory(); }, throwNoMemory, "bad_alloc"},
    {"ForeignException", [](ravel::downloadInfo&) { throwNumber(); }, throwNumber, "UNKOWN EX:"},
};

INSTANTIATE_TEST_SUITE_P(Ways, HostileService, testing::ValuesIn(kWays),
                         [](const testing::TestParamInfo<Way>& way) {
                           return std::string(way.param.name);
                         });

TEST(HostileTable, ADigestThatNeverAgreesCostsOneDownloadACheck) {
  HostileScene scene;
  std::vector<ravel::IPProperty> rows = scene.good.rows;
  rows.back().sequence = 25;
  scene.answerWith(reset, pageOf(rows, 25),
                   [&](std::vector<ravel::CodeInfo>& codes) { codes = scene.good.codes; });
  scene.liveTenHours();
  scene.expectGoodTableAnswers();
  EXPECT_LE(scene.calls, 3 * (kHours * 6 + 1)) << "a check, a page and the names every 600 seconds";
  EXPECT_GE(scene.calls, 3 * (kHours * 6 - 1));
}

TEST(HostileTable, OneThatNeverEndsIsGivenUpAndItsMemoryGivenBack) {
  HostileScene scene;
  constexpr std::uint32_t kRows = 2000000;
  std::uint32_t cursor = 0;
  int pages = 0;
  scene.answerWith(
      reset,
      [&](ravel::downloadInfo& page) {
        ++pages;
        page.lowMaxIndex = kEndless;
        page.IPContent.resize(kRows);
        page.IPContent.back().sequence = cursor += kRows;
      },
      [&](std::vector<ravel::CodeInfo>& codes) { codes = scene.good.codes; });
  const std::int64_t before = residentKilobytes();
  std::int64_t highest = 0;
  scene.clock.spend(601000);
  scene.access.checkChange();
  for (int pass = 0; pass < 100; ++pass) {
    scene.access.totalDownloadRequest();
    highest = std::max(highest, residentKilobytes() - before);
  }
  scene.output.take();
  EXPECT_EQ(pages, 9) << "2^24 ranges and no more";
#ifdef __SANITIZE_THREAD__  // keeps notes of its own on every word
  EXPECT_LT(highest, 6 * 1024 * 1024);
#else
  EXPECT_LT(highest, 2 * 1024 * 1024);
#endif
  EXPECT_LT(residentKilobytes() - before, 128 * 1024);
  EXPECT_TRUE(scene.saysError("more than 16777216 ranges"));
  scene.expectGoodTableAnswers();
}

TEST(HostileTable, RangesInAnyOrderReversedOrOverlappingAnswerOnlyFromRangesThatHoldTheAddress) {
  std::mt19937 random(7);
  std::uniform_int_distribution<std::uint32_t> anywhere(0, 2000);
  std::uniform_int_distribution<std::uint32_t> length(0, 300);
  for (int round = 0; round < 20; ++round) {
    HostileScene scene;
    std::vector<ravel::IPProperty> rows;
    for (std::uint32_t i = 0; i < 60; ++i) {
      const std::uint32_t start = anywhere(random);
      ravel::IPProperty range = row(start, start + length(random) - 100, 1, i + 1);
      if (i % 20 == 0) range.endIP = UINT32_MAX;
      rows.push_back(range);
    }
    rows.back().sequence = 60;
    scene.answerWith(reset, pageOf(rows, 60), [](std::vector<ravel::CodeInfo>&) {});
    scene.clock.spend(601000);
    scene.access.checkChange();
    scene.access.totalDownloadRequest();
    ASSERT_FALSE(scene.access.isTotalDownLoading());
    for (std::uint32_t ip = 0; ip < 2600; ++ip) {
      ravel::IPInfo info;
      if (!scene.client.getIPInfo(ip, &info)) continue;
      ASSERT_GE(info.oper, 1u);
      ASSERT_LE(info.oper, 60u);
      const ravel::IPProperty& from = rows[info.oper - 1];
      ASSERT_LE(from.startIP, ip);
      ASSERT_GE(from.endIP, ip);
    }
  }
}

TEST(HostileNames, UnknownTypesByTheThousandCostABoundedNumberOfLines) {
  HostileScene scene;
  constexpr int kTypes[] = {-1, 0, 9, INT_MAX, INT_MIN};
  scene.answerWith([](ravel::CheckInfo& info) { info.isReset = 0; }, [](ravel::downloadInfo&) {},
                   [&](std::vector<ravel::CodeInfo>& codes) {
                     for (int i = 0; i < 100000; ++i) codes.push_back(code(kTypes[i % 5], i, "x"));
                     codes.insert(codes.end(), scene.good.codes.begin(), scene.good.codes.end());
                   });
  scene.access.isCheckingCode() = true;
  scene.access.checkCodeChangeRequest();
  scene.output.take();
  EXPECT_FALSE(scene.access.isCheckingCode());
  EXPECT_TRUE(scene.saysError("invalid code type. code_type = " + std::to_string(INT_MIN)));
  EXPECT_TRUE(scene.saysError("more entries of the code tables were skipped"));
  EXPECT_LT(scene.lines(), 2000u);
  scene.expectGoodTableAnswers();
}

TEST(HostileConfiguration, AbsurdValuesCostNothing) {
  for (const std::int32_t value : {INT_MIN, -1, 0, INT_MAX}) {
    HostileScene scene;
    scene.service->getConf = [value](ravel::ClientConf& conf) {
      conf.statisOpen = true;
      conf.logUnknownIp = true;
      conf.simplingRate = value;
      conf.logBufferLimit = value;
      conf.confVersion = value;
      conf.simpleLogCitys.assign(20000, std::string(100, 'x'));
      conf.simpleLogCitys.push_back("");
    };
    scene.answerWith([](ravel::CheckInfo& info) { info.updateConf = true; },
                     [](ravel::downloadInfo&) {}, [](std::vector<ravel::CodeInfo>&) {});
    scene.clock.spend(601000);
    scene.access.checkChange();
    const std::int64_t before = residentKilobytes();
    for (std::uint32_t i = 0; i < 200000; ++i) {
      IPHumanMessage message;
      scene.client.getIPInfo(kFirstAddress + i, &message);
    }
    EXPECT_LT(residentKilobytes() - before, 64 * 1024) << value;
    scene.expectGoodTableAnswers();
  }
}

}  // namespace
}  // namespace tolvar_test
