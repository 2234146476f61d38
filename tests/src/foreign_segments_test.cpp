// Keys and segments that are not what they should be: refused with a message, never overwritten.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST(ForeignSegments, SmallOneBehindTheSizeKeyIsRefused) {
  ShmKeys keys;
  RawSegment::create(keys.size(), 100);
  RawSegment foreign(keys.size());
  const std::string content = randomBytes(100, 1);
  foreign.write(0, content);
  EXPECT_THAT(failureOf(keys),
              AllOf(HasSubstr("key " + std::to_string(keys.size())), HasSubstr("100 bytes")));
  EXPECT_EQ(foreign.allBytes(), content);
  EXPECT_FALSE(RawSegment::exists(keys.data0()));

  StoreClient client;
  client.access.shmKey(2) = keys.size();
  EXPECT_THROW(client.access.WriteShareMemorySize(1), qel::ZU_Exception);
  EXPECT_EQ(foreign.allBytes(), content);
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
