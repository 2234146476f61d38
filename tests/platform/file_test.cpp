#include "platform/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/support/system_calls_guard.h"
#include "tests/support/temp_dir.h"

namespace {

using qel::ZU_File;
using tolvar_test::TempDir;

TEST(File, ExistenceCoversFilesAndDirectories) {
  TempDir directory;
  EXPECT_TRUE(ZU_File::isFileExist(directory.path()));
  EXPECT_FALSE(ZU_File::isFileExist(directory.file("a")));
  tolvar_test::writeFile(directory.file("a"), "x");
  EXPECT_TRUE(ZU_File::isFileExist(directory.file("a")));
  EXPECT_FALSE(ZU_File::isFileExist(""));
}

TEST(File, DirectoriesAreToldFromFilesThroughLinks) {
  TempDir directory;
  tolvar_test::writeFile(directory.file("a"), "x");
  EXPECT_TRUE(ZU_File::isDirectory(directory.path()));
  EXPECT_FALSE(ZU_File::isDirectory(directory.file("a")));
  EXPECT_FALSE(ZU_File::isDirectory(directory.file("none")));
  ASSERT_EQ(symlink(directory.path().c_str(), directory.file("link").c_str()), 0);
  EXPECT_TRUE(ZU_File::isDirectory(directory.file("link")));
}

TEST(File, CreatesADirectoryWithItsParents) {
  TempDir directory;
  const std::string deep = directory.file("a/b/c");
  EXPECT_TRUE(ZU_File::makeDirRecursive(deep));
  EXPECT_TRUE(ZU_File::isDirectory(deep));
  EXPECT_TRUE(ZU_File::makeDirRecursive(deep)) << "an existing directory is no failure";
  EXPECT_TRUE(ZU_File::makeDirRecursive(directory.file("d//e/")));
  EXPECT_TRUE(ZU_File::isDirectory(directory.file("d/e")));
}

TEST(File, CreatesDirectoriesWithMode0755) {
  TempDir directory;
  const mode_t before = umask(0);
  const bool made = ZU_File::makeDirRecursive(directory.file("p/q"));
  umask(before);
  ASSERT_TRUE(made);
  for (const char* name : {"p", "p/q"}) {
    struct stat found {};
    ASSERT_EQ(stat(directory.file(name).c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0755u) << name;
  }
}

TEST(File, SaysSoWhenADirectoryCannotBeMade) {
  TempDir directory;
  tolvar_test::writeFile(directory.file("a"), "x");
  EXPECT_FALSE(ZU_File::makeDirRecursive(directory.file("a")));
  EXPECT_FALSE(ZU_File::makeDirRecursive(directory.file("a/b")));
  EXPECT_FALSE(ZU_File::makeDirRecursive(""));
  EXPECT_EQ(tolvar_test::readFile(directory.file("a")), "x");

  tolvar_test::SystemCallsGuard guard;
  guard.calls().mkdir = [](const char*, mode_t) {
    errno = ENOSPC;
    return -1;
  };
  EXPECT_FALSE(ZU_File::makeDirRecursive(directory.file("full")));
}

TEST(File, SplitsThePathOff) {
  EXPECT_EQ(ZU_File::extractFilePath("/var/log/tolvar.log"), "/var/log");
  EXPECT_EQ(ZU_File::extractFilePath("log/tolvar.log"), "log");
  EXPECT_EQ(ZU_File::extractFilePath("tolvar.log"), ".");
  EXPECT_EQ(ZU_File::extractFilePath("/tolvar.log"), "/");
  EXPECT_EQ(ZU_File::extractFilePath("/var/log/"), "/var/log");
  EXPECT_EQ(ZU_File::extractFilePath(""), ".");
}

}  // namespace
