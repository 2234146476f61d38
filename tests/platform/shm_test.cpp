#include "platform/shm.h"

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/exception.h"
#include "tests/support/shm_keys.h"

namespace {

using qel::ZU_Exception;
using qel::ZU_Shm;
using tolvar_test::ShmKeys;

constexpr std::size_t kSize = 10000;

bool exists(key_t key) { return shmget(key, 0, 0) >= 0; }

shmid_ds describe(key_t key) {
  shmid_ds description{};
  EXPECT_EQ(shmctl(shmget(key, 0, 0), IPC_STAT, &description), 0);
  return description;
}

TEST(Shm, CreatesAZeroedSegmentOfTheGivenSize) {
  ShmKeys keys;
  ZU_Shm segment;
  segment.init(kSize, keys.data0());
  EXPECT_TRUE(segment.iscreate());
  EXPECT_EQ(segment.size(), kSize);
  EXPECT_EQ(segment.id(), shmget(keys.data0(), 0, 0));
  const char* bytes = static_cast<const char*>(segment.getPointer());
  EXPECT_TRUE(std::all_of(bytes, bytes + kSize, [](char byte) { return byte == 0; }));
}

TEST(Shm, CreatesWithMode0660WhateverTheUmask) {
  ShmKeys keys;
  const mode_t before = umask(0777);
  ZU_Shm segment;
  segment.init(kSize, keys.data0());
  umask(before);
  EXPECT_EQ(describe(keys.data0()).shm_perm.mode & 0777, 0660);
}

TEST(Shm, AttachesAnExistingSegmentAtItsRealSize) {
  ShmKeys keys;
  ZU_Shm creator, larger, smaller;
  creator.init(kSize, keys.data0());
  larger.init(20 * kSize, keys.data0());
  EXPECT_FALSE(larger.iscreate());
  EXPECT_EQ(larger.size(), kSize);
  smaller.init(1, keys.data0());
  EXPECT_FALSE(smaller.iscreate());
  EXPECT_EQ(smaller.size(), kSize);
  std::memcpy(creator.getPointer(), "shared", 7);
  EXPECT_STREQ(static_cast<const char*>(smaller.getPointer()), "shared");
}

TEST(Shm, OnlyAnOwnerRemovesAtTheEnd) {
  ShmKeys keys;
  {
    ZU_Shm segment;
    segment.init(kSize, keys.data0());
  }
  EXPECT_TRUE(exists(keys.data0()));
  EXPECT_EQ(describe(keys.data0()).shm_nattch, 0u) << "the end detaches";
  {
    ZU_Shm segment;
    segment.init(kSize, keys.data0(), true);
  }
  EXPECT_FALSE(exists(keys.data0()));
}

TEST(Shm, TheFlagOfInitReplacesTheConstructors) {
  ShmKeys keys;
  {
    ZU_Shm segment(true);
    segment.init(kSize, keys.data0());
  }
  EXPECT_TRUE(exists(keys.data0()));
}

TEST(Shm, InitDetachesWhatWasAttachedBefore) {
  ShmKeys keys;
  ZU_Shm segment;
  segment.init(kSize, keys.data0());
  segment.init(kSize, keys.data1());
  EXPECT_EQ(describe(keys.data0()).shm_nattch, 0u);
  EXPECT_EQ(describe(keys.data1()).shm_nattch, 1u);
}

TEST(Shm, DelRemovesAndDetaches) {
  ShmKeys keys;
  ZU_Shm segment, other;
  segment.init(kSize, keys.data0());
  other.init(kSize, keys.data0());
  std::memcpy(segment.getPointer(), "kept", 5);
  segment.del();
  EXPECT_FALSE(exists(keys.data0()));
  EXPECT_EQ(segment.getPointer(), nullptr);
  EXPECT_EQ(segment.size(), 0u);
  EXPECT_EQ(segment.id(), -1);
  EXPECT_STREQ(static_cast<const char*>(other.getPointer()), "kept")
      << "whoever maps it keeps the mapping";
}

TEST(Shm, AfterDelTheKeyIsFreeForANewSegment) {
  ShmKeys keys;
  ZU_Shm segment, old;
  segment.init(kSize, keys.data0());
  old.init(kSize, keys.data0());
  std::memcpy(old.getPointer(), "old", 4);
  segment.del();
  segment.init(2 * kSize, keys.data0());
  EXPECT_TRUE(segment.iscreate());
  EXPECT_EQ(segment.size(), 2 * kSize);
  EXPECT_NE(segment.id(), old.id());
  EXPECT_STREQ(static_cast<const char*>(segment.getPointer()), "");
}

TEST(Shm, DelOfASegmentRemovedBySomebodyElseIsNoFailure) {
  ShmKeys keys;
  ZU_Shm segment;
  segment.init(kSize, keys.data0());
  keys.removeSegments();
  EXPECT_NO_THROW(segment.del());
  EXPECT_EQ(segment.getPointer(), nullptr);
  EXPECT_NO_THROW(segment.del()) << "nothing attached, nothing to do";
}

TEST(Shm, DetachKeepsTheSegment) {
  ShmKeys keys;
  ZU_Shm segment;
  segment.init(kSize, keys.data0());
  segment.detach();
  EXPECT_EQ(segment.getPointer(), nullptr);
  EXPECT_TRUE(exists(keys.data0()));
  segment.detach();
}

TEST(Shm, AttachNeverCreates) {
  ShmKeys keys;
  ZU_Shm segment;
  EXPECT_FALSE(segment.attach(keys.data0()));
  EXPECT_FALSE(exists(keys.data0()));
  EXPECT_EQ(segment.getPointer(), nullptr);
}

TEST(Shm, AttachFindsTheSegmentAndItsSize) {
  ShmKeys keys;
  ZU_Shm creator, reader;
  creator.init(kSize, keys.data0());
  std::memcpy(creator.getPointer(), "shared", 7);
  EXPECT_TRUE(reader.attach(keys.data0(), true));
  EXPECT_FALSE(reader.iscreate());
  EXPECT_EQ(reader.size(), kSize);
  EXPECT_STREQ(static_cast<const char*>(reader.getPointer()), "shared");
}

TEST(Shm, AttachMakesNobodyAnOwner) {
  ShmKeys keys;
  ZU_Shm creator;
  creator.init(kSize, keys.data0());
  {
    ZU_Shm other(true);
    ASSERT_TRUE(other.attach(keys.data0()));
  }
  EXPECT_TRUE(exists(keys.data0()));
}

TEST(ShmDeathTest, AReadOnlyAttachmentCannotBeWritten) {
  ShmKeys keys;
  ZU_Shm creator, reader;
  creator.init(kSize, keys.data0());
  ASSERT_TRUE(reader.attach(keys.data0(), true));
  EXPECT_DEATH(*static_cast<volatile char*>(reader.getPointer()) = 1, "");
}

TEST(Shm, RefusesTheKeyThatNamesNoSegment) {
  ZU_Shm segment;
  EXPECT_THROW(segment.init(kSize, IPC_PRIVATE), ZU_Exception);
  EXPECT_EQ(segment.getPointer(), nullptr);
}

}  // namespace
