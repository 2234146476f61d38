#include <gmock/gmock.h>
#include <sqlite3.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "platform/exception.h"
#include "tests/tolvard/serve_fixture.h"

namespace {

using testing::HasSubstr;
using tolvar_test::fieldOf;
using tolvar_test::ServiceClient;
using tolvar_test::TolvardProcess;

/// A service whose database file meets with an accident.
class ServeStore : public tolvar_test::ServeFixture {
 protected:
  void replaceWith(const std::string& bytes) const {
    tolvar_test::writeFile(database() + ".new", bytes);
    std::filesystem::rename(database() + ".new", database());
  }
};

TEST_F(ServeStore, GarbageInItsPlaceIsLoggedAndTheVersionServedOn) {
  import(TOLVAR_SAMPLE);
  const std::string good = tolvar_test::readFile(database());
  TolvardProcess server(database());
  ServiceClient client(server.address());
  replaceWith(std::string(50000, 'g'));
  EXPECT_THAT(fieldOf(server.awaitLine("event=store_failed"), "cause"), HasSubstr("no database"));
  EXPECT_EQ(client.firstPage().IPContent.size(), 40u);

  replaceWith(good);
  server.awaitLine("event=store_recovered");
  importText(rows(7, "Funk"));
  server.awaitLine("event=version_served version=2");
  EXPECT_EQ(client.firstPage().IPContent.size(), 7u);
}

TEST_F(ServeStore, AFileThatGoesAwayIsFollowedWhenItComesBack) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  ServiceClient client(server.address());
  std::filesystem::rename(database(), directory.file("away.db"));
  EXPECT_THAT(server.awaitLine("event=store_failed"), HasSubstr("no such file"));
  EXPECT_EQ(client.firstPage().IPContent.size(), 40u);
  EXPECT_FALSE(std::filesystem::exists(database()));
  std::filesystem::rename(directory.file("away.db"), database());
  server.awaitLine("event=store_recovered");
}

TEST_F(ServeStore, AnOlderBackupPutBackIsServedWithAHigherTimeStamp) {
  import(TOLVAR_SAMPLE);
  const std::string old = tolvar_test::readFile(database());
  importText(rows(7, "Funk"));
  TolvardProcess server(database());
  ServiceClient client(server.address());
  const std::uint32_t before = client.firstPage().highMaxIndex;
  for (const char* part : {"-wal", "-shm"}) std::filesystem::remove(database() + part);
  replaceWith(old);
  server.awaitLine("event=version_served version=1");
  const ravel::downloadInfo page = client.firstPage();
  EXPECT_EQ(page.IPContent.size(), 40u);
  EXPECT_GT(page.highMaxIndex, before);
}

TEST_F(ServeStore, ADamagedVersionIsNotServed) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  ServiceClient client(server.address());
  importText(rows(7, "Funk"));
  server.awaitLine("event=version_served version=2");
  // A version whose content is not what its digest says.
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(database().c_str(), &handle), SQLITE_OK);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closing(handle, sqlite3_close);
  constexpr const char* kTamper =
      "BEGIN; INSERT INTO version SELECT 3, time_stamp + 1000, dataset, source, created_at "
      "FROM version WHERE version = 1; "
      "UPDATE ip_range SET oper = 99 WHERE dataset = 1 AND sequence = 1; COMMIT";
  ASSERT_EQ(sqlite3_exec(handle, kTamper, nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(handle);
  EXPECT_THAT(server.awaitLine("event=store_failed"), HasSubstr("version 3 is damaged"));
  EXPECT_EQ(client.firstPage().IPContent.size(), 7u);
}

TEST_F(ServeStore, SighupReadsTheFileAgain) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  server.signal(SIGHUP);
  importText(rows(7, "Funk"));
  server.awaitLine("event=version_served version=2");
  server.signal(SIGHUP);
  server.signal(SIGTERM);
  EXPECT_EQ(server.awaitExit(), 0);
}

TEST_F(ServeStore, AnEmptyVersionIsServedBecauseItWasForced) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  ServiceClient client(server.address());
  importText("start,end\n");
  server.awaitLine("event=version_served version=2");
  EXPECT_TRUE(client.firstPage().IPContent.empty());
}

TEST_F(ServeStore, KilledImportsAreNeverServed) {
  import(TOLVAR_SAMPLE);
  TolvardProcess server(database());
  ServiceClient client(server.address());
  tolvar_test::writeFile(directory.file("big.csv"), rows(20000, "Gross"));
  for (int round = 0; round < 3; ++round) {
    // Killed somewhere in the middle, without a word.
    tolvar_test::runTool("/bin/sh", {"-c",
                                     "timeout -s KILL 0.0" + std::to_string(2 + 3 * round) +
                                         " \"$0\" import --force \"$1\" --db \"$2\"",
                                     TOLVARD, directory.file("big.csv"), database()});
    const std::size_t ranges = client.firstPage().IPContent.size();
    EXPECT_TRUE(ranges == 40 || ranges == 20000) << ranges;
  }
  import(TOLVAR_SAMPLE);
  server.awaitLine("ranges=40 ");
  EXPECT_EQ(client.firstPage().IPContent.size(), 40u);
}

}  // namespace
