#include "service/store/table_store.h"

#include <gmock/gmock.h>

#include "tests/service_store/store_support.h"
#include "tests/support/report_count.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tolvar_test::hits;
using tolvar_test::kOneRow;
using tolvar_test::kTwoRows;
using namespace tolvar::service;

constexpr auto kNothingKnown = [](const StoredVersion&) { return false; };

class Store : public testing::Test, public tolvar_test::StoreFixture {};

TEST_F(Store, AVersionComesBackAsItWasImported) {
  TableStore store = open();
  const StoredVersion added = import(store, kTwoRows);
  EXPECT_EQ(added.number, 1);
  EXPECT_EQ(added.ranges, 2);
  EXPECT_EQ(added.addresses, 384);
  EXPECT_EQ(added.codes, 4);
  EXPECT_EQ(added.source, "t.csv");
  EXPECT_EQ(added.createdAt, "1970-01-01 00:16:40");

  const TableStore reader = open(TableStore::Mode::ReadOnly);
  const auto loaded = reader.loadNewest(kNothingKnown);
  ASSERT_TRUE(loaded.has_value());
  EXPECT_EQ(loaded->table->digest(), added.digest);
  EXPECT_EQ(loaded->table->timesTamp(), 1000u);
  EXPECT_EQ(loaded->table->ranges()[1].endIP, 0x0200007Fu);
  EXPECT_EQ(tolvar_test::nameOf({{}, loaded->table->codes()}, 6, loaded->table->ranges()[1].oper),
            "Netz");
  EXPECT_TRUE(reader.ids() == store.ids());
}

TEST_F(Store, AKnownVersionIsNotReadAgain) {
  TableStore store = open();
  EXPECT_FALSE(store.loadNewest(kNothingKnown).has_value());
  const StoredVersion added = import(store, kOneRow);
  EXPECT_FALSE(store.loadNewest([&](const StoredVersion& v) { return v.number == added.number; })
                   .has_value());
}

TEST_F(Store, TimeStampsRiseEvenWhenTheClockGoesBack) {
  TableStore store = open();
  EXPECT_EQ(import(store, kOneRow, 5000).timesTamp, 5000u);
  EXPECT_EQ(import(store, kTwoRows, 4000).timesTamp, 5001u);
  EXPECT_EQ(store.rollback(1, 4000).timesTamp, 5002u);
}

TEST_F(Store, NoTimeStampAboveTheLargestIsInvented) {
  TableStore store = open();
  import(store, kOneRow, UINT32_MAX);
  EXPECT_THROW(import(store, kTwoRows, 4000), StoreError);
  EXPECT_EQ(store.versions().size(), 1u);
}

TEST_F(Store, TheLastVersionsAreKept) {
  TableStore store = open();
  for (int i = 0; i < 5; ++i) import(store, i % 2 == 0 ? kOneRow : kTwoRows, 1000, 3);
  const auto versions = store.versions();
  ASSERT_EQ(versions.size(), 3u);
  EXPECT_EQ(versions.front().number, 3);
  EXPECT_EQ(versions.back().number, 5);
  EXPECT_FALSE(store.find(2).has_value());
  EXPECT_THAT(store.check(), IsEmpty());
}

TEST_F(Store, ARollbackServesOldContentAsANewVersion) {
  TableStore store = open();
  const StoredVersion first = import(store, kOneRow);
  import(store, kTwoRows);
  const StoredVersion back = store.rollback(1, 2000);
  EXPECT_EQ(back.number, 3);
  EXPECT_EQ(back.digest, first.digest);
  EXPECT_THAT(back.source, HasSubstr("rollback to version 1"));
  EXPECT_EQ(store.loadNewest(kNothingKnown)->table->digest(), first.digest);
}

TEST_F(Store, ContentThatARollbackUsesOutlivesItsVersion) {
  TableStore store = open();
  const StoredVersion first = import(store, kOneRow);
  import(store, kTwoRows);
  store.rollback(1, 2000);
  import(store, kTwoRows, 3000, 2);  // versions 3 and 4 stay
  EXPECT_FALSE(store.find(1).has_value());
  EXPECT_EQ(store.load(*store.find(3))->digest(), first.digest);
}

TEST_F(Store, AVersionThatIsNotThereCannotBeRolledBackTo) {
  TableStore store = open();
  import(store, kOneRow);
  try {
    store.rollback(9, 2000);
    FAIL() << "it was";
  } catch (const StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("no version 9"));
  }
}

TEST_F(Store, AnImportThatComparedWithAnOlderVersionIsRefused) {
  TableStore store = open();
  import(store, kOneRow);
  tolvar::service::ImportResult result = tolvar_test::csv(kTwoRows);
  const TableVersion table(std::move(result.table), 1);
  EXPECT_THROW(store.add({table, store.ids(), "t.csv", 1000, 5, 0}), StoreError);
  EXPECT_EQ(store.versions().size(), 1u);
}

TEST_F(Store, AnIdThatWentToAnotherNameIsRefused) {
  TableStore store = open();
  import(store, kOneRow);                                             // Netz is operator 1
  tolvar::service::ImportResult result = tolvar_test::csv(kTwoRows);  // here Funk is
  const TableVersion table(std::move(result.table), 1);
  EXPECT_THROW(store.add({table, result.ids, "t.csv", 1000, 5, 1}), StoreError);
  EXPECT_EQ(store.versions().size(), 1u);
  EXPECT_EQ(store.ids().find({CodeType::Oper, 0, "Netz"}), 1);
}

TEST_F(Store, AVersionThatAnImportRemovesMeanwhileIsNotTakenForDamaged) {
  TableStore writer = open();
  import(writer, kOneRow);
  const TableStore reader = open(TableStore::Mode::ReadOnly);
  const StoredVersion found = reader.find(1).value();
  import(writer, kTwoRows, 2000, 1);
  try {
    reader.load(found);
    FAIL() << "it was read";
  } catch (const StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("no version 1"));
  }
}

TEST_F(Store, AReaderSeesOneStateWhileOthersImport) {
  TableStore writer = open();
  import(writer, kOneRow);
  const TableStore reader = open(TableStore::Mode::ReadOnly);
  const auto loaded = reader.loadNewest([&](const StoredVersion&) {
    import(writer, kTwoRows, 2000, 1);  // removes the version that is about to be read
    return false;
  });
  ASSERT_TRUE(loaded.has_value());
  EXPECT_EQ(loaded->stored.number, 1);
  EXPECT_EQ(loaded->table->ranges().size(), 1u);
  EXPECT_EQ(reader.newest()->number, 2);
}

TEST_F(Store, TheChangeMarkMovesWhenAnotherWrites) {
  TableStore writer = open();
  const TableStore reader = open(TableStore::Mode::ReadOnly);
  const std::int64_t before = reader.changeMark();
  EXPECT_EQ(reader.changeMark(), before);
  import(writer, kOneRow);
  const std::int64_t after = reader.changeMark();
  EXPECT_NE(after, before);
  ravel::ClientConf conf = writer.conf();
  conf.statisOpen = true;
  writer.setConf(conf);
  EXPECT_NE(reader.changeMark(), after);
}

TEST_F(Store, TheConfigurationVersionRisesWhenSomethingChanges) {
  TableStore store = open();
  ravel::ClientConf conf = store.conf();
  EXPECT_EQ(conf.confVersion, 1);
  EXPECT_EQ(conf.logBufferLimit, 1000);
  EXPECT_EQ(store.setConf(conf).confVersion, 1);
  conf.simpleLogCitys = {"Altenhafen", "Mesa, Vista"};
  conf.simplingRate = 7;
  conf.confVersion = 99;
  EXPECT_EQ(store.setConf(conf).confVersion, 2);
  const ravel::ClientConf read = open(TableStore::Mode::ReadOnly).conf();
  EXPECT_THAT(read.simpleLogCitys, ElementsAre("Altenhafen", "Mesa, Vista"));
  EXPECT_EQ(read.simplingRate, 7);
  EXPECT_EQ(read.confVersion, 2);
  EXPECT_FALSE(read.statisOpen);
}

TEST_F(Store, ChangesOfTheConfigurationFromTwoSidesAddUp) {
  TableStore here = open();
  TableStore there = open();
  there.relaxWrites(1);
  here.changeConf([&](ravel::ClientConf& conf) {
    conf.statisOpen = true;
    // Would be undone by what is written here.
    EXPECT_THROW(there.changeConf([](ravel::ClientConf& other) { other.simplingRate = 7; }),
                 StoreError);
  });
  const ravel::ClientConf both =
      there.changeConf([](ravel::ClientConf& conf) { conf.simplingRate = 7; });
  EXPECT_TRUE(both.statisOpen);
  EXPECT_EQ(both.simplingRate, 7);
  EXPECT_EQ(both.confVersion, 3);
  EXPECT_THROW(here.changeConf([](ravel::ClientConf& conf) {
    conf.statisOpen = false;
    throw StoreError("refused");
  }),
               StoreError);
  EXPECT_TRUE(here.conf().statisOpen);
}

TEST_F(Store, UsageAddsUp) {
  TableStore store = open();
  Usage batch;
  batch.counts = {hits(ravel::ECountry, "Germany", 5), hits(ravel::ECity, "Altenhafen", 9)};
  batch.lines = {"a", "b"};
  batch.droppedHits = 1;
  store.addUsage(batch, {});
  store.addUsage(batch, {});
  const Usage sum = store.usage();
  ASSERT_EQ(sum.counts.size(), 2u);
  EXPECT_EQ(sum.counts[0].info.name, "Altenhafen");
  EXPECT_EQ(sum.counts[0].count, 18u);
  EXPECT_EQ(sum.counts[1].count, 10u);
  EXPECT_THAT(sum.lines, ElementsAre("a", "b", "a", "b"));
  EXPECT_EQ(sum.droppedHits, 2u);
}

TEST_F(Store, UsageIsBoundedAndSaturates) {
  TableStore store = open();
  UsageLimits limits;
  limits.names = 2;
  limits.lines = 3;
  Usage batch;
  for (const char* name : {"a", "b", "c"}) batch.counts.push_back(hits(ravel::ECity, name, 4));
  batch.lines = {"1", "2", "3", "4", "5"};
  store.addUsage(batch, limits);
  batch.counts = {hits(ravel::ECity, "a", UINT64_MAX)};
  batch.droppedLines = UINT64_MAX;
  store.addUsage(batch, limits);
  store.addUsage(batch, limits);
  const Usage sum = store.usage();
  ASSERT_EQ(sum.counts.size(), 2u);
  EXPECT_EQ(sum.counts[0].count, static_cast<std::uint64_t>(INT64_MAX));
  EXPECT_EQ(sum.droppedHits, 4u);
  EXPECT_EQ(sum.droppedLines, static_cast<std::uint64_t>(INT64_MAX));
  EXPECT_THAT(sum.lines, ElementsAre("3", "4", "5"));
}

TEST_F(Store, BytesThatAreNoTextAreKept) {
  TableStore store = open();
  Usage batch;
  batch.counts = {hits(ravel::ECity, std::string("\xff\0x", 3), 1)};
  store.addUsage(batch, {});
  EXPECT_EQ(store.usage().counts[0].info.name, std::string("\xff\0x", 3));
}

}  // namespace
