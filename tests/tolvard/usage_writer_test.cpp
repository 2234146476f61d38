#include "tools/tolvard/serve/usage_writer.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>

#include "service/store/sqlite.h"
#include "service/store/table_store.h"
#include "tests/support/report_count.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tolvar::service::SqliteConnection;
using tolvar::service::SqliteTransaction;
using tolvar::service::TableStore;
using tolvar::service::Usage;
using tolvar::tools::EventLog;
using tolvar::tools::UsageWriter;

/// A writer of a store, whose log the test reads.
class UsageWriterTest : public testing::Test {
 protected:
  UsageWriterTest() {
    const TableStore made(database, TableStore::Mode::Create);
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    _events.reset(fdopen(ends[0], "r"));
    _logEnd = ends[1];
    log.emplace(_logEnd);
  }
  ~UsageWriterTest() override { endLog(); }

  /// The next line of the log; waits for it. Empty when the log has ended.
  std::string nextEvent() {
    std::array<char, 2000> line{};
    return fgets(line.data(), line.size(), _events.get()) == nullptr ? "" : line.data();
  }

  void endLog() {
    if (!log) return;
    log.reset();
    close(_logEnd);
  }

  Usage stored() const { return TableStore(database, TableStore::Mode::ReadOnly).usage(); }

  const tolvar_test::TempDir directory;
  const std::string database = directory.file("t.db");
  tolvar::service::LookupService service;
  std::optional<EventLog> log;
  std::optional<UsageWriter> writer;

 private:
  std::unique_ptr<FILE, int (*)(FILE*)> _events{nullptr, fclose};
  int _logEnd = -1;
};

TEST_F(UsageWriterTest, WhatWasReportedRightBeforeTheEndIsStored) {
  for (int round = 0; round < 10; ++round) {
    service.reportLines({"line"}, 0);
    writer.emplace(database, service, *log);
    writer.reset();
  }
  EXPECT_EQ(stored().lines.size(), 10u);
}

TEST_F(UsageWriterTest, WhatWasHeldBackAndWhatCameSinceAreBothStoredAtTheEnd) {
  SqliteConnection other(database, SqliteConnection::Mode::ReadWrite);
  {
    const SqliteTransaction writing(other);
    service.reportLines({"held back"}, 0);
    writer.emplace(database, service, *log);
    EXPECT_THAT(nextEvent(), HasSubstr("event=usage_not_stored"));
    service.reportLines({"since"}, 0);
  }
  writer.reset();
  EXPECT_THAT(stored().lines, ElementsAre("held back", "since"));
  endLog();
  EXPECT_THAT(nextEvent(), HasSubstr("event=usage_stored_again"));
}

TEST_F(UsageWriterTest, WhatCannotBeStoredAtTheEndIsTold) {
  SqliteConnection other(database, SqliteConnection::Mode::ReadWrite);
  const SqliteTransaction writing(other);
  service.reportCounts({tolvar_test::hits(ravel::ECity, "Altenhafen", 7)}, 0);
  writer.emplace(database, service, *log);
  EXPECT_THAT(nextEvent(), HasSubstr("event=usage_not_stored"));
  service.reportCounts({tolvar_test::hits(ravel::ECity, "Altenhafen", 5)}, 0);
  service.reportLines({"a", "b"}, 0);
  writer.reset();
  endLog();
  EXPECT_THAT(nextEvent(), HasSubstr("event=usage_lost hits=12 lines=2"));
  EXPECT_THAT(stored().lines, IsEmpty());
}

}  // namespace
