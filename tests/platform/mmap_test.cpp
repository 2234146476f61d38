#include "platform/mmap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/exception.h"
#include "tests/support/system_calls_guard.h"
#include "tests/support/temp_dir.h"

namespace {

using qel::ZU_Exception;
using qel::ZU_Mmap;
using testing::HasSubstr;
using tolvar_test::SystemCallsGuard;
using tolvar_test::TempDir;

constexpr std::size_t kPositionFileSize = 9;

/// What the failing `mmap(path, length)` throws.
ZU_Exception failureOf(const std::string& path, std::size_t length) {
  try {
    ZU_Mmap map;
    map.mmap(path, length);
  } catch (const ZU_Exception& caught) {
    return caught;
  }
  ADD_FAILURE() << "mapping " << path << " did not fail";
  return ZU_Exception("");
}

int closed = 0;
int tries = 0;

void countCloses(const SystemCallsGuard& guard) {
  closed = 0;
  guard.calls().close = [](int fd) {
    ++closed;
    return ::close(fd);
  };
}

TEST(Mmap, CreatesTheFileWithExactlyTheLengthAndZeros) {
  TempDir directory;
  const std::string path = directory.file("downloadPos.dat");
  const mode_t before = umask(0);
  ZU_Mmap map;
  map.mmap(path, kPositionFileSize);
  umask(before);
  EXPECT_EQ(map.size(), kPositionFileSize);
  EXPECT_EQ(tolvar_test::readFile(path), std::string(kPositionFileSize, '\0'));
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0644u);
}

TEST(Mmap, KeepsTheContentAndExtendsIt) {
  TempDir directory;
  tolvar_test::writeFile(directory.file("short"), "abc");
  ZU_Mmap map;
  map.mmap(directory.file("short"), kPositionFileSize);
  EXPECT_EQ(std::string(static_cast<char*>(map.getPointer()), kPositionFileSize),
            std::string("abc\0\0\0\0\0\0", kPositionFileSize));
}

TEST(Mmap, NeverCutsALongerFile) {
  TempDir directory;
  tolvar_test::writeFile(directory.file("long"), "0123456789abcdef");
  ZU_Mmap map;
  map.mmap(directory.file("long"), kPositionFileSize);
  map.munmap();
  EXPECT_EQ(tolvar_test::readFile(directory.file("long")), "0123456789abcdef");
}

TEST(Mmap, WritesReachTheFileAndOtherMappings) {
  TempDir directory;
  const std::string path = directory.file("pos");
  ZU_Mmap first, second;
  first.mmap(path, kPositionFileSize);
  second.mmap(path, kPositionFileSize);
  std::memcpy(first.getPointer(), "12345678", 8);
  EXPECT_EQ(std::memcmp(second.getPointer(), "12345678", 8), 0);
  EXPECT_EQ(tolvar_test::readFile(path), std::string("12345678\0", kPositionFileSize));
}

TEST(Mmap, ReleasesAndMapsAgain) {
  TempDir directory;
  ZU_Mmap map;
  EXPECT_EQ(map.getPointer(), nullptr);
  map.munmap();
  map.mmap(directory.file("a"), 4);
  std::memcpy(map.getPointer(), "aaaa", 4);
  map.mmap(directory.file("b"), 8);
  EXPECT_EQ(map.size(), 8u);
  EXPECT_EQ(std::memcmp(map.getPointer(), "\0\0\0\0\0\0\0\0", 8), 0);
  map.munmap();
  EXPECT_EQ(map.getPointer(), nullptr);
  EXPECT_EQ(map.size(), 0u);
  EXPECT_EQ(tolvar_test::readFile(directory.file("a")), "aaaa");
}

TEST(Mmap, SaysWhichFileCannotBeOpened) {
  TempDir directory;
  const std::string absent = directory.file("no/such/file");
  EXPECT_EQ(std::string(failureOf(absent, 9).what()),
            "[ZU_Mmap::mmap]: cannot open " + absent + " (errno 2: No such file or directory)");
  EXPECT_EQ(failureOf(absent, 9).getErrCode(), ENOENT);
  const ZU_Exception isDirectory = failureOf(directory.path(), 9);
  EXPECT_THAT(isDirectory.what(), HasSubstr(directory.path()));
  EXPECT_EQ(isDirectory.getErrCode(), EISDIR);
}

TEST(Mmap, SaysWhichFileHasNoRoomAndClosesIt) {
  TempDir directory;
  const std::string path = directory.file("pos");
  SystemCallsGuard guard;
  countCloses(guard);
  guard.calls().posixFallocate = [](int, off_t, off_t) { return ENOSPC; };
  EXPECT_EQ(std::string(failureOf(path, 9).what()), "[ZU_Mmap::mmap]: cannot reserve 9 bytes in " +
                                                        path +
                                                        " (errno 28: No space left on device)");
  EXPECT_EQ(closed, 1);
}

TEST(Mmap, SaysWhichFileCannotBeMappedAndClosesIt) {
  TempDir directory;
  const std::string path = directory.file("pos");
  SystemCallsGuard guard;
  countCloses(guard);
  guard.calls().mmap = [](void*, size_t, int, int, int, off_t) {
    errno = ENOMEM;
    return MAP_FAILED;
  };
  EXPECT_EQ(std::string(failureOf(path, 9).what()),
            "[ZU_Mmap::mmap]: cannot map " + path + " (errno 12: Cannot allocate memory)");
  EXPECT_EQ(closed, 1);
}

TEST(Mmap, RefusesNoLength) {
  TempDir directory;
  EXPECT_EQ(failureOf(directory.file("pos"), 0).getErrCode(), EINVAL);
}

TEST(Mmap, AFailureLeavesNothingMapped) {
  TempDir directory;
  ZU_Mmap map;
  map.mmap(directory.file("pos"), 9);
  EXPECT_THROW(map.mmap(directory.file("no/such/file"), 9), ZU_Exception);
  EXPECT_EQ(map.getPointer(), nullptr);
  EXPECT_EQ(map.size(), 0u);
}

TEST(Mmap, ASignalDoesNotMakeItFail) {
  TempDir directory;
  SystemCallsGuard guard;
  tries = 0;
  guard.calls().open = [](const char* path, int flags, mode_t mode) {
    if (++tries < 3) {
      errno = EINTR;
      return -1;
    }
    return ::open(path, flags, mode);
  };
  guard.calls().posixFallocate = [](int fd, off_t offset, off_t length) {
    return ++tries < 6 ? EINTR : ::posix_fallocate(fd, offset, length);
  };
  ZU_Mmap map;
  map.mmap(directory.file("pos"), kPositionFileSize);
  EXPECT_EQ(tries, 6);
  EXPECT_EQ(map.size(), kPositionFileSize);
}

TEST(Mmap, WriteReachesAFileThatSomebodyCut) {
  TempDir directory;
  const std::string path = directory.file("pos");
  ZU_Mmap map;
  map.mmap(path, kPositionFileSize);
  EXPECT_TRUE(map.write(0, "12345678", 8));
  EXPECT_EQ(std::string(static_cast<char*>(map.getPointer()), 8), "12345678");
  ASSERT_EQ(truncate(path.c_str(), 0), 0);
  EXPECT_TRUE(map.write(2, "abc", 3));
  EXPECT_EQ(tolvar_test::readFile(path), std::string("\0\0abc", 5));
}

TEST(Mmap, WriteGoesOnAfterSignalsAndPartsAndSaysWhenItCannot) {
  TempDir directory;
  const std::string path = directory.file("pos");
  SystemCallsGuard guard;
  tries = 0;
  guard.calls().pwrite = [](int fd, const void* data, std::size_t, off_t offset) -> ssize_t {
    if (++tries % 2 == 1) {
      errno = EINTR;
      return -1;
    }
    return ::pwrite(fd, data, 1, offset);
  };
  ZU_Mmap map;
  map.mmap(path, kPositionFileSize);
  EXPECT_TRUE(map.write(1, "abc", 3));
  EXPECT_EQ(tolvar_test::readFile(path), std::string("\0abc\0\0\0\0\0", 9));
  guard.calls().pwrite = [](int, const void*, std::size_t, off_t) -> ssize_t {
    errno = ENOSPC;
    return -1;
  };
  EXPECT_FALSE(map.write(1, "abc", 3));
}

}  // namespace
