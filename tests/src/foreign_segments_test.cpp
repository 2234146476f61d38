// Keys and segments that are not what they should be: refused with a message, never overwritten.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sem.h>

#include <array>
#include <cerrno>
#include <random>

#include "tests/src/store_fixture.h"
#include "tests/support/system_calls_guard.h"

namespace {

using namespace tolvar_test;
using testing::AllOf;
using testing::HasSubstr;

std::string failureOf(key_t first, key_t second, key_t size) {
  StoreClient client;
  try {
    client.open(first, second, size);
  } catch (const qel::ZU_Exception& caught) {
    return caught.what();
  }
  return "(no exception)";
}

std::string failureOf(const ShmKeys& keys) {
  return failureOf(keys.data0(), keys.data1(), keys.size());
}

std::string randomBytes(std::size_t count, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

TEST(Keys, ZeroIsRefusedBeforeAnythingIsMade) {
  ShmKeys keys;
  EXPECT_THAT(failureOf(0, keys.data1(), keys.size()), HasSubstr("something other than 0"));
  EXPECT_THAT(failureOf(keys.data0(), 0, keys.size()), HasSubstr("something other than 0"));
  EXPECT_THAT(failureOf(keys.data0(), keys.data1(), 0), HasSubstr("something other than 0"));
  EXPECT_FALSE(RawSegment::exists(keys.data0()));
  EXPECT_FALSE(RawSegment::exists(keys.data1()));
  EXPECT_FALSE(RawSegment::exists(keys.size()));
}

TEST(Keys, EqualOnesAreRefusedBeforeAnythingIsMade) {
  ShmKeys keys;
  const key_t a = keys.data0();
  const key_t b = keys.data1();
  EXPECT_THAT(failureOf(a, a, b), HasSubstr("must differ"));
  EXPECT_THAT(failureOf(a, b, a), HasSubstr("must differ"));
  EXPECT_THAT(failureOf(b, a, a), HasSubstr("must differ"));
  EXPECT_FALSE(RawSegment::exists(a));
  EXPECT_FALSE(RawSegment::exists(b));
}

class ForeignSegment : public testing::TestWithParam<std::size_t> {};

TEST_P(ForeignSegment, WithRandomContentIsRefusedAndStaysUntouched) {
  ShmKeys keys;
  for (const key_t key : {keys.data0(), keys.data1()}) {
    keys.removeSegments();
    RawSegment::create(key, GetParam());
    RawSegment foreign(key);
    const std::string content = randomBytes(GetParam(), static_cast<unsigned>(GetParam()));
    foreign.write(0, content);
    EXPECT_THAT(failureOf(keys),
                AllOf(HasSubstr("key " + std::to_string(key)),
                      HasSubstr("does not belong to this library"), HasSubstr("remove")));
    EXPECT_EQ(RawSegment::idBehind(key), foreign.id());
    EXPECT_TRUE(foreign.allBytes() == content);
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, ForeignSegment, testing::Values(1, 15, 16, 100, 4096, 1 << 20));

TEST(ForeignSegments, SmallOneThatItsOwnerHasNotFilledYetIsRefused) {
  ShmKeys keys;
  for (const std::size_t size : {std::size_t{40}, std::size_t{4096}, std::size_t{1} << 20}) {
    keys.removeSegments();
    RawSegment::create(keys.data0(), size);
    const RawSegment foreign(keys.data0());
    EXPECT_THAT(failureOf(keys), HasSubstr("does not belong to this library"));
    EXPECT_EQ(RawSegment::idBehind(keys.data0()), foreign.id()) << "it was removed";
    EXPECT_EQ(foreign.allBytes(), std::string(size, '\0'));
  }
}

class ForeignSizeRecord : public testing::TestWithParam<std::size_t> {};

TEST_P(ForeignSizeRecord, OfAnotherSizeIsRefusedAndNothingIsTouchedOrMade) {
  ShmKeys keys;
  RawSegment::create(keys.size(), GetParam());
  RawSegment foreign(keys.size());
  const std::string content = randomBytes(GetParam(), 1);
  foreign.write(0, content);
  EXPECT_THAT(failureOf(keys), AllOf(HasSubstr("key " + std::to_string(keys.size())),
                                     HasSubstr(std::to_string(GetParam()) + " bytes"),
                                     HasSubstr("choose another shm_key_3 or remove")));
  EXPECT_EQ(foreign.allBytes(), content);
  EXPECT_FALSE(RawSegment::exists(keys.data0()));
  EXPECT_LT(semget(keys.size(), 0, 0), 0) << "a lock was made next to it";

  StoreClient client;
  client.access.shmKey(2) = keys.size();
  std::size_t size = 77;
  EXPECT_THROW(client.access.ReadShareMemorySize(&size), qel::ZU_Exception);
  EXPECT_THROW(client.access.WriteShareMemorySize(1), qel::ZU_Exception);
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(foreign.allBytes(), content);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ForeignSizeRecord, testing::Values(100, 135, 137, 4096, 1 << 20));

TEST(ForeignSegments, AnotherImagesDataSegmentBehindTheSizeKeyStaysWhole) {
  ShmKeys theirs;
  ShmKeys keys;
  publishImage(theirs, smallTable(1));
  const std::string before = RawSegment(theirs.data0()).bytes(0, 4096);
  EXPECT_THAT(failureOf(keys.data0(), keys.data1(), theirs.data0()),
              HasSubstr("key " + std::to_string(theirs.data0())));
  EXPECT_EQ(RawSegment(theirs.data0()).bytes(0, 4096), before);
  StoreClient client;
  client.open(theirs);
  EXPECT_TRUE(answersFrom(client, smallTable(1)));
}

TEST(ForeignSemaphores, ASetOfSeveralIsLeftAloneAndTheImageUsedWithoutALock) {
  ShmKeys keys;
  publishImage(keys, smallTable(1));
  ASSERT_EQ(semctl(semget(keys.size(), 0, 0), 0, IPC_RMID), 0);
  const int set = semget(keys.size(), 3, IPC_CREAT | 0600);
  ASSERT_GE(set, 0);
  const auto values = [set] {
    return std::array<int, 3>{semctl(set, 0, GETVAL), semctl(set, 1, GETVAL),
                              semctl(set, 2, GETVAL)};
  };
  // Free as its owner counts, which is what a lock of ours looks like while it is held; then held.
  for (const int value : {1, 0}) {
    for (int i = 0; i < 3; ++i) ASSERT_EQ(semctl(set, i, SETVAL, value), 0);
    const auto before = values();
    StoreClient client;
    client.open(keys);
    EXPECT_TRUE(answersFrom(client, smallTable(1)));
    EXPECT_EQ(values(), before);
    semid_ds description{};
    ASSERT_EQ(semctl(set, 0, IPC_STAT, &description), 0);
    EXPECT_EQ(description.sem_otime, 0) << "somebody operated on it";

    const auto says =
        AllOf(HasSubstr("used without its lock"), HasSubstr("key " + std::to_string(keys.size())),
              HasSubstr("3 semaphores"), HasSubstr("choose another key or remove"));
    EXPECT_THAT(client.out, says);
    EXPECT_TRUE(client.api.status().failing);
    EXPECT_THAT(client.api.status().lastError, says);
  }
}

TEST(ForeignSegments, RefusalLeavesTheClientUsableWithOtherKeys) {
  ShmKeys taken;
  ShmKeys free;
  RawSegment::create(taken.data0(), 4096);
  RawSegment(taken.data0()).write(0, randomBytes(4096, 5));
  publishImage(free, smallTable(1));
  StoreClient client;
  EXPECT_THROW(client.open(taken), qel::ZU_Exception);
  ravel::IPInfo info;
  EXPECT_FALSE(client.api.getIPInfo(0x01000000, &info));
  client.open(free);
  EXPECT_TRUE(answersFrom(client, smallTable(1)));
}

TEST(OwnSegments, TooSmallOneIsMadeAnewInFullSize) {
  ShmKeys keys;
  publishImage(keys, smallTable(1));
  // The first page of a good image is all that there is.
  const std::string start = RawSegment(keys.data0()).bytes(0, 4096);
  {
    StoreClient remover;
    ASSERT_TRUE(remover.access.shm(0).attach(keys.data0()));
    remover.access.shm(0).del();
  }
  RawSegment::create(keys.data0(), 4096);
  RawSegment(keys.data0()).write(0, start);

  StoreClient client;
  client.open(keys);
  EXPECT_TRUE(answersFrom(client, smallTable(1)));
  const RawSegment anew(keys.data0());
  EXPECT_EQ(anew.size(), 73695648u);
  EXPECT_EQ(anew.ipStatus(), 3u);
  EXPECT_EQ(anew.codeStatus(), 3u);
  EXPECT_EQ(anew.regions()[8].capacity, 256u);
  EXPECT_TRUE(anew.ranges().empty());
}

TEST(OwnSegments, NewOneThatNobodyLaidIsLaid) {
  ShmKeys keys;
  RawSegment::create(keys.data0(), 73695648);
  StoreClient client;
  client.open(keys);
  const RawSegment laid(keys.data0());
  EXPECT_EQ(laid.ipStatus(), 3u);
  EXPECT_EQ(laid.regions()[0].capacity, 524288u);
}

TEST(OwnSegments, RecordOfASizeThatCannotBeHadFallsBackToTheDefault) {
  ShmKeys keys;
  SystemCallsGuard guard;
  guard.calls().shmget = [](key_t key, std::size_t size, int flags) {
    if (size > std::size_t{1} << 30) {
      errno = ENOMEM;
      return -1;
    }
    return ::shmget(key, size, flags);
  };
  StoreClient client;
  client.access.shmKey(2) = keys.size();
  client.access.WriteShareMemorySize(std::size_t{1} << 39);
  client.open(keys);
  EXPECT_THAT(client.err, HasSubstr("trying the default size"));
  EXPECT_EQ(RawSegment(keys.data0()).size(), 73695648u);
  EXPECT_EQ(RawSegment(keys.data1()).size(), 73695648u);
}

TEST(OwnSegments, NoSegmentAtAllIsLoggedWithCallAndKeyAndTheClientGoesOnAlone) {
  ShmKeys keys;
  SystemCallsGuard guard;
  guard.calls().shmget = [](key_t key, std::size_t size, int flags) {
    if (size > 1000) {
      errno = ENOSPC;
      return -1;
    }
    return ::shmget(key, size, flags);
  };
  StoreClient client;
  client.open(keys);
  EXPECT_THAT(client.err, AllOf(HasSubstr("no share memory to be had"), HasSubstr("shmget"),
                                HasSubstr(std::to_string(keys.data0()))));
  EXPECT_TRUE(client.access.internals().unshared);
  EXPECT_EQ(client.access.shm(0).getPointer(), nullptr);
}

}  // namespace
