#include "tools/tolvard/output_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;
using tolvar::tools::writeFile;
using tolvar_test::readFile;

class OutputFile : public testing::Test {
 protected:
  std::string file(const std::string& name) const { return directory.file(name); }

  std::string old(const std::string& name) const {
    tolvar_test::writeFile(file(name), "old");
    return file(name);
  }

  static struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status;
  }

  static mode_t modeOf(const std::string& path) { return statusOf(path).st_mode & 07777; }

  /// An owner and a group that this user may give a file to: root any, others themselves and the
  /// last of their groups.
  static std::pair<uid_t, gid_t> othersThatFilesMayGoTo() {
    if (geteuid() == 0) return {4711, 4712};
    std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
    groups.resize(
        static_cast<std::size_t>(getgroups(static_cast<int>(groups.size()), groups.data())));
    return {geteuid(), groups.empty() ? getegid() : groups.back()};
  }

  static std::string failure(const std::string& path) {
    try {
      writeFile(path, "new");
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  std::ptrdiff_t entries() const {
    return std::distance(fs::directory_iterator(directory.path()), {});
  }

  const tolvar_test::TempDir directory;
};

TEST_F(OutputFile, ANewFileIsLikeAnyOther) {
  writeFile(file("out"), "new");
  EXPECT_EQ(readFile(file("out")), "new");
  tolvar_test::writeFile(file("any"), "");
  EXPECT_EQ(modeOf(file("out")), modeOf(file("any")));
  EXPECT_EQ(entries(), 2);
}

TEST_F(OutputFile, AnOldFileKeepsItsPermissions) {
  const std::string path = old("out");
  for (const mode_t mode : {0600u, 0640u, 0666u}) {
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    writeFile(path, "new");
    EXPECT_EQ(modeOf(path), mode);
  }
  EXPECT_EQ(readFile(path), "new");
  EXPECT_EQ(entries(), 1);
}

TEST_F(OutputFile, AnOldFileKeepsItsOwner) {
  const auto [owner, group] = othersThatFilesMayGoTo();
  const std::string path = old("out");
  ASSERT_EQ(chown(path.c_str(), owner, group), 0);
  writeFile(path, "new");
  EXPECT_EQ(statusOf(path).st_uid, owner);
  EXPECT_EQ(statusOf(path).st_gid, group);
}

TEST_F(OutputFile, WhatReadsTheOldFileReadsItToItsEnd) {
  const std::string path = old("out");
  const int reader = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  writeFile(path, "new");
  std::array<char, 8> text{};
  EXPECT_EQ(read(reader, text.data(), text.size()), 3);
  close(reader);
  EXPECT_STREQ(text.data(), "old");
}

TEST_F(OutputFile, ALinkStaysAndWhatItLeadsToIsWritten) {
  fs::create_directory(file("sub"));
  const std::string target = old("sub/target");
  fs::create_symlink("sub/target", file("second"));
  fs::create_symlink(file("second"), file("first"));
  writeFile(file("first"), "new");
  EXPECT_EQ(readFile(target), "new");
  EXPECT_TRUE(fs::is_symlink(file("first")));
  EXPECT_TRUE(fs::is_symlink(file("second")));
}

TEST_F(OutputFile, ALinkToNoFileYetMakesIt) {
  fs::create_symlink("target", file("link"));
  writeFile(file("link"), "new");
  EXPECT_TRUE(fs::is_symlink(file("link")));
  EXPECT_EQ(readFile(file("target")), "new");
}

TEST_F(OutputFile, LinksInACircleAreAFault) {
  fs::create_symlink("b", file("a"));
  fs::create_symlink("a", file("b"));
  EXPECT_THAT(failure(file("a")), HasSubstr(file("a") + ": cannot be written: Too many levels"));
}

TEST_F(OutputFile, APipeIsWrittenInto) {
  ASSERT_EQ(mkfifo(file("pipe").c_str(), 0600), 0);
  const int reader = open(file("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  writeFile(file("pipe"), "new");
  std::array<char, 8> text{};
  EXPECT_EQ(read(reader, text.data(), text.size()), 3);
  close(reader);
  EXPECT_STREQ(text.data(), "new");
  EXPECT_TRUE(fs::is_fifo(file("pipe")));
}

TEST_F(OutputFile, ADeviceIsWrittenInto) {
  // Through links of the test's own, because a defect here would replace what they lead to.
  fs::create_symlink("/dev/null", file("null"));
  fs::create_symlink("/dev/full", file("full"));
  EXPECT_EQ(failure(file("null")), "");
  EXPECT_EQ(failure(file("full")), file("full") + ": cannot be written: No space left on device");
  EXPECT_TRUE(fs::is_character_file(file("null")));
  EXPECT_TRUE(fs::is_character_file(file("full")));
  EXPECT_EQ(entries(), 2);
}

TEST_F(OutputFile, AFileWithoutAPathIsWrittenInto) {
  const std::string path = old("out");
  const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  fs::remove(path);
  writeFile("/proc/self/fd/" + std::to_string(descriptor), "newer");
  std::array<char, 8> text{};
  EXPECT_EQ(read(descriptor, text.data(), text.size()), 5);
  close(descriptor);
  EXPECT_STREQ(text.data(), "newer");
  EXPECT_EQ(entries(), 0);
}

TEST_F(OutputFile, WhatCannotBeMadeIsSaid) {
  fs::create_directory(file("sub"));
  EXPECT_THAT(failure(file("sub")), HasSubstr(file("sub") + ": cannot be written: Is a directory"));
  EXPECT_THAT(failure(file("absent/out")), HasSubstr("No such file or directory"));
  const std::string path = old("out");
  EXPECT_THAT(failure(path + "/out"), HasSubstr("Not a directory"));
  EXPECT_EQ(readFile(path), "old");
}

}  // namespace
