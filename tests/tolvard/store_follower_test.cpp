#include "tools/tolvard/serve/store_follower.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <thread>

#include "tests/support/temp_dir.h"
#include "tests/transport_grpc/test_tables.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using tolvar::service::TableStore;
using tolvar::service::TableVersion;
using tolvar::tools::EventLog;
using tolvar::tools::StoreFollower;

using Version = std::shared_ptr<const TableVersion>;

/// A follower of a store that holds a version of ten ranges.
class StoreFollowerTest : public testing::Test {
 protected:
  StoreFollowerTest() {
    import(10);
    follower.open();
  }
  ~StoreFollowerTest() override {
    follower.stop();
    log.reset();
    close(_logFile);
  }

  /// Another version, as `tolvard import` makes it.
  void import(std::size_t ranges) {
    TableStore store(database, TableStore::Mode::Create);
    const TableVersion table({tolvar_test::makeRanges(ranges), tolvar_test::makeCodes()}, 1);
    const auto newest = store.newest();
    store.add({table, store.ids(), "a test", 1700000000, 2, newest ? newest->number : 0});
  }

  tolvar_test::TempDir directory;
  const std::string database = directory.file("t.db");
  const std::string logPath = directory.file("log");

 private:
  const int _logFile = open(logPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);

 protected:
  std::optional<EventLog> log{std::in_place, _logFile};
  tolvar::service::LookupService service;
  StoreFollower follower{database, service, *log};
};

TEST_F(StoreFollowerTest, StepsSurroundThePublication) {
  std::promise<Version> before;
  std::promise<Version> after;
  follower.start({[&](const Version& version, const std::stop_token&) {
                    EXPECT_EQ(version->ranges().size(), 11u);
                    before.set_value(service.current());
                  },
                  [&] { after.set_value(service.current()); }});
  import(11);
  EXPECT_EQ(before.get_future().get()->ranges().size(), 10u);
  EXPECT_EQ(after.get_future().get()->ranges().size(), 11u);
}

/// Reports of clients change the file every second, and reading a large table takes long.
TEST_F(StoreFollowerTest, AVersionThatCannotBeServedIsNotTriedAgainWithEveryWrite) {
  std::atomic<int> tries{0};
  follower.start({[&](const Version&, const std::stop_token&) {
                    ++tries;
                    throw std::runtime_error("it cannot be served");
                  },
                  [] {}});
  import(11);
  for (const int rate : {1, 2, 3}) {
    TableStore(database, TableStore::Mode::ReadWrite).changeConf([&](ravel::ClientConf& conf) {
      conf.simplingRate = rate;
    });
    while (service.getConf().simplingRate != rate) std::this_thread::yield();
  }
  follower.stop();
  EXPECT_EQ(tries, 1);
}

/// A version that is being prepared uses the server, which does not outlive the end of `stop`.
TEST_F(StoreFollowerTest, StopWaitsForTheVersionThatIsBeingPreparedAndDoesNotPublishIt) {
  std::promise<void> begun;
  std::atomic<bool> isPreparing{false};
  std::atomic<bool> isPublished{false};
  follower.start({[&](const Version&, const std::stop_token& stop) {
                    isPreparing = true;
                    begun.set_value();
                    std::mutex mutex;
                    std::unique_lock lock(mutex);
                    std::condition_variable_any stopped;
                    stopped.wait(lock, stop, [] { return false; });
                    isPreparing = false;
                  },
                  [&] { isPublished = true; }});
  import(11);
  begun.get_future().wait();
  follower.stop();
  EXPECT_FALSE(isPreparing);
  EXPECT_FALSE(isPublished);
  EXPECT_EQ(service.current()->ranges().size(), 10u);
  log.reset();  // writes what waits
  EXPECT_THAT(tolvar_test::readFile(logPath), Not(HasSubstr("ranges=11")));
}

}  // namespace
