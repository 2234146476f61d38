#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "service/store/table_store.h"
#include "tests/service_store/store_support.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tolvar_test::kOneRow;
using tolvar_test::kTwoRows;
using namespace tolvar::service;

class StoreFaults : public testing::Test, public tolvar_test::StoreFixture {
 protected:
  std::string failure(TableStore::Mode mode) const {
    try {
      open(mode);
    } catch (const StoreError& error) {
      return error.what();
    }
    return "";
  }

  /// Changes the file behind the store's back.
  void tamper(const char* sql) const {
    sqlite3* handle = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &handle), SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closing(handle, sqlite3_close);
    ASSERT_EQ(sqlite3_exec(handle, sql, nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(handle);
  }
};

TEST_F(StoreFaults, AnAbsentFileIsNotMadeByReading) {
  for (const auto mode : {TableStore::Mode::ReadOnly, TableStore::Mode::ReadWrite})
    EXPECT_THAT(failure(mode), AllOf(HasSubstr(path()), HasSubstr("no such file")));
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(StoreFaults, GarbageIsNoDatabaseAndStaysAsItIs) {
  const std::string garbage(5000, 'g');
  tolvar_test::writeFile(path(), garbage);
  for (const auto mode :
       {TableStore::Mode::ReadOnly, TableStore::Mode::ReadWrite, TableStore::Mode::Create}) {
    EXPECT_THAT(failure(mode), AllOf(HasSubstr(path()), HasSubstr("no database")));
  }
  EXPECT_EQ(tolvar_test::readFile(path()), garbage);
}

TEST_F(StoreFaults, ADatabaseOfSomethingElseIsRefused) {
  tamper("CREATE TABLE theirs (x)");
  EXPECT_THAT(failure(TableStore::Mode::Create), HasSubstr("another program"));
}

TEST_F(StoreFaults, ANewerSchemaIsRefused) {
  open();
  tamper("PRAGMA user_version = 1000");
  EXPECT_THAT(failure(TableStore::Mode::ReadOnly), HasSubstr("newer version"));
}

TEST_F(StoreFaults, AnEmptyFileIsFilledByAnImportOnly) {
  tolvar_test::writeFile(path(), "");
  EXPECT_THAT(failure(TableStore::Mode::ReadOnly), HasSubstr("empty"));
  TableStore store = open();
  EXPECT_EQ(import(store, kOneRow).number, 1);
}

TEST_F(StoreFaults, SeveralThatMakeTheSameFileAtOnceAllSucceed) {
  for (int round = 0; round < 20; ++round) {
    std::vector<std::string> failures(4);
    std::vector<std::thread> openers;
    for (std::string& told : failures)
      openers.emplace_back([this, &told] { told = failure(TableStore::Mode::Create); });
    for (std::thread& opener : openers) opener.join();
    EXPECT_THAT(failures, testing::Each("")) << "round " << round;
    for (const char* part : {"", "-wal", "-shm"}) std::filesystem::remove(path() + part);
  }
}

TEST_F(StoreFaults, ACopyWithoutTheWriteAheadLogIsGivenOne) {
  {
    TableStore store = open();
    import(store, kOneRow);
  }
  tamper("PRAGMA journal_mode = DELETE");  // as VACUUM INTO makes them
  const TableStore reader = open();
  TableStore writer = open(TableStore::Mode::ReadWrite);
  writer.relaxWrites(1);
  const auto loaded = reader.loadNewest([&](const StoredVersion&) {
    import(writer, kTwoRows, 2000);  // neither waits for the other
    return false;
  });
  EXPECT_EQ(loaded->stored.number, 1);
  EXPECT_EQ(reader.newest()->number, 2);
}

TEST_F(StoreFaults, ADirectoryIsNoDatabase) {
  std::filesystem::create_directory(path());
  EXPECT_THAT(failure(TableStore::Mode::Create), HasSubstr(path()));
}

TEST_F(StoreFaults, APipeIsNoDatabaseAndIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  for (const auto mode : {TableStore::Mode::ReadOnly, TableStore::Mode::Create})
    EXPECT_THAT(failure(mode), AllOf(HasSubstr(path()), HasSubstr("no regular file")));
}

TEST_F(StoreFaults, ADamagedFileIsToldFromOneThatCannotBeUsed) {
  EXPECT_THROW(open(TableStore::Mode::ReadOnly), StoreError);
  tolvar_test::writeFile(path(), std::string(5000, 'g'));
  EXPECT_THROW(open(TableStore::Mode::ReadOnly), StoreDamage);
  std::filesystem::remove(path());
  tamper("CREATE TABLE theirs (x)");
  try {
    open(TableStore::Mode::ReadOnly);
    FAIL() << "it was opened";
  } catch (const StoreDamage& error) {
    FAIL() << error.what();
  } catch (const StoreError&) {
  }
}

TEST(StoreNames, AnEmptyOneIsNoFile) {
  try {
    const TableStore store("", TableStore::Mode::Create);
    FAIL() << "it was opened";
  } catch (const StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("path of the database is empty"));
  }
}

TEST(StoreNames, WhatSqliteTakesForMemoryIsAFile) {
  const tolvar_test::WorkingDirectory directory;
  for (const char* name : {":memory:", "file:t.db?mode=memory", "file::memory:"}) {
    {
      const TableStore store(name, TableStore::Mode::Create);
      EXPECT_TRUE(std::filesystem::is_regular_file(directory.file(name))) << name;
    }
    EXPECT_TRUE(TableStore(name, TableStore::Mode::ReadOnly).versions().empty()) << name;
  }
}

TEST_F(StoreFaults, ChangedRangesAreFound) {
  TableStore store = open();
  import(store, kTwoRows);
  EXPECT_THAT(store.check(), IsEmpty());
  tamper("UPDATE ip_range SET oper = 77 WHERE sequence = 2");
  EXPECT_THAT(store.check(),
              testing::ElementsAre(AllOf(HasSubstr("version 1 is damaged"), HasSubstr("digest"),
                                         HasSubstr("roll back"))));
  EXPECT_THROW(store.load(*store.newest()), StoreError);
}

TEST_F(StoreFaults, ChangedNamesAreFound) {
  TableStore store = open();
  import(store, kTwoRows);
  tamper("UPDATE code SET name = 'Falsch' WHERE name = 'Netz'");
  EXPECT_THAT(store.check(), testing::ElementsAre(HasSubstr("codes are not those")));
}

TEST_F(StoreFaults, OverlappingRangesAreFound) {
  TableStore store = open();
  import(store, kTwoRows);
  tamper("UPDATE ip_range SET start_ip = 16777217 WHERE sequence = 2");
  EXPECT_THAT(store.check(), testing::ElementsAre(HasSubstr("overlap")));
}

TEST_F(StoreFaults, IdsThatContradictEachOtherAreFound) {
  TableStore store = open();
  import(store, kOneRow);
  tamper("UPDATE assigned_id SET parent = -5, type = 60");
  EXPECT_NO_THROW(store.ids());
  tamper("DROP TABLE assigned_id");
  EXPECT_THROW(store.ids(), StoreError);
}

TEST_F(StoreFaults, AnotherWriterIsNamedAsTheReason) {
  TableStore store = open();
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(path().c_str(), &handle), SQLITE_OK);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closing(handle, sqlite3_close);
  ASSERT_EQ(sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  store.relaxWrites(1);
  Usage usage;
  usage.lines = {"x"};
  try {
    store.addUsage(usage, {});
    FAIL() << "it was written";
  } catch (const StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("another process is writing"));
  }
  ASSERT_EQ(sqlite3_exec(handle, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
  store.addUsage(usage, {});
  EXPECT_EQ(store.usage().lines.size(), 1u);
}

TEST_F(StoreFaults, AnInterruptedReadFailsAndTheNextOneWorks) {
  TableStore store = open();
  import(store, kTwoRows);
  EXPECT_THROW(store.loadNewest([&](const StoredVersion&) -> bool {
    throw StoreError("stopped while reading");
  }),
               StoreError);
  EXPECT_EQ(store.loadNewest([](const StoredVersion&) { return false; })->table->ranges().size(),
            2u);
}

TEST_F(StoreFaults, TheStockProgramReadsNamesAndQuads) {
  TableStore store = open();
  import(store, kTwoRows);
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(path().c_str(), &handle), SQLITE_OK);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closing(handle, sqlite3_close);
  sqlite3_stmt* statement = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(handle,
                               "SELECT start || ' ' || end || ' ' || country || ' ' || oper "
                               "FROM range_text ORDER BY sequence",
                               -1, &statement, nullptr),
            SQLITE_OK)
      << sqlite3_errmsg(handle);
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> finishing(statement,
                                                                        sqlite3_finalize);
  ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
               "1.0.0.0 1.0.0.255 Germany Funk");
}

}  // namespace
