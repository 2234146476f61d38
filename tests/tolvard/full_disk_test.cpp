// A database on a disk that has no room left, with a real file system.
#include <gmock/gmock.h>

#include <functional>
#include <string>

#include "tests/support/temp_dir.h"
#include "tests/tolvard/service_client.h"
#include "tests/tolvard/small_disk.h"
#include "tests/tolvard/tolvard_process.h"
#include "tests/tools/run_tool.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using tolvar_test::fieldOf;
using tolvar_test::onSmallDisk;
using tolvar_test::ServiceClient;
using tolvar_test::SmallDisk;
using tolvar_test::TolvardProcess;
using tolvar_test::ToolRun;

constexpr std::uint64_t kDisk = 2 << 20;
constexpr std::uint32_t kSmall = 2000;    ///< ranges of a table that fits
constexpr std::uint32_t kLarge = 100000;  ///< ranges of one that needs more than kDisk

class FullDisk : public testing::Test {
 protected:
  FullDisk() {
    write("small.csv", kSmall, "Netz");
    write("large.csv", kLarge, "Funk");
  }

  /// Skipped only where the kernel lets the process mount nothing, for want of CAP_SYS_ADMIN (as in
  /// an ordinary container): there is no file system to fill then. A process that has it fails when
  /// a mount is refused for any reason (see onSmallDisk).
  void SetUp() override {
    const std::string refused = onSmallDisk(mountPoint.path(), kDisk, [](const SmallDisk&) {});
    if (!refused.empty())
      GTEST_SKIP() << "without CAP_SYS_ADMIN no file system can be mounted to be filled ("
                   << refused << "); ImportFaults.WithoutSpaceTheOldVersionStays runs without one";
  }

  void onDisk(const std::function<void(const SmallDisk&)>& body) const {
    EXPECT_EQ(onSmallDisk(mountPoint.path(), kDisk, body), "");
  }

  void write(const std::string& name, std::uint32_t count, const std::string& oper) const {
    std::string text = "start,end,oper\n";
    for (std::uint32_t i = 0; i < count; ++i)
      text += std::to_string(i * 16) + "," + std::to_string(i * 16 + 9) + "," + oper + "\n";
    tolvar_test::writeFile(tables.file(name), text);
  }

  static ToolRun run(const SmallDisk& disk, std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--db", disk.file("t.db")});
    return tolvar_test::runTool(TOLVARD, arguments);
  }

  ToolRun import(const SmallDisk& disk, const std::string& table) const {
    return run(disk, {"import", tables.file(table)});
  }

  /// The file, what happened to it, and what to do.
  static void expectNoSpace(const ToolRun& result, const SmallDisk& disk) {
    EXPECT_EQ(result.exitStatus, 2) << result.out;
    EXPECT_THAT(result.err,
                AllOf(HasSubstr(disk.file("t.db") + ": no space is left for it"),
                      HasSubstr("nothing was changed"), HasSubstr("free space and try again")));
  }

  const tolvar_test::TempDir tables;
  const tolvar_test::TempDir mountPoint;
};

TEST_F(FullDisk, AnImportThatDoesNotFitChangesNothing) {
  onDisk([&](const SmallDisk& disk) {
    ASSERT_EQ(import(disk, "small.csv").exitStatus, 0);
    const std::string before = run(disk, {"versions"}).out;
    const std::uint64_t room = disk.freeBytes();

    expectNoSpace(import(disk, "large.csv"), disk);
    EXPECT_EQ(run(disk, {"versions"}).out, before);
    EXPECT_EQ(run(disk, {"check"}).exitStatus, 0);
    EXPECT_LT(room - disk.freeBytes(), 64u << 10);  // an index of readers may be there now

    disk.grow(8 * kDisk);
    EXPECT_EQ(import(disk, "large.csv").exitStatus, 0);
    EXPECT_EQ(run(disk, {"check"}).exitStatus, 0);
  });
}

TEST_F(FullDisk, AnImportThatDoesNotFitGivesItsSpaceBackBesideAService) {
  onDisk([&](const SmallDisk& disk) {
    ASSERT_EQ(import(disk, "small.csv").exitStatus, 0);
    TolvardProcess server(disk.file("t.db"));
    ServiceClient client(server.address());
    const std::uint64_t room = disk.freeBytes();

    expectNoSpace(import(disk, "large.csv"), disk);
    EXPECT_EQ(disk.freeBytes(), room);
    EXPECT_EQ(client.firstPage().IPContent.size(), kSmall);
    EXPECT_EQ(run(disk, {"check"}).exitStatus, 0);

    disk.grow(8 * kDisk);
    ASSERT_EQ(import(disk, "large.csv").exitStatus, 0);
    server.awaitLine("event=version_served version=2");
    EXPECT_EQ(client.firstPage(kSmall + 1).IPContent.size(), kSmall + 1);
  });
}

TEST_F(FullDisk, AServiceGoesOnWithoutAByteLeftAndStoresItsReportsLater) {
  onDisk([&](const SmallDisk& disk) {
    ASSERT_EQ(import(disk, "small.csv").exitStatus, 0);
    TolvardProcess server(disk.file("t.db"));
    ServiceClient client(server.address());
    disk.fill();
    client.main->reportLines({"line from a full disk"}, 0);
    EXPECT_THAT(fieldOf(server.awaitLine("event=usage_not_stored"), "cause"),
                HasSubstr("no space is left for it"));
    EXPECT_EQ(client.firstPage().IPContent.size(), kSmall);
    expectNoSpace(import(disk, "large.csv"), disk);
    EXPECT_EQ(run(disk, {"check"}).exitStatus, 0);
    // Another one beside it, as in a change of programs.
    TolvardProcess another(disk.file("t.db"));
    EXPECT_EQ(ServiceClient(another.address()).firstPage().IPContent.size(), kSmall);

    disk.empty();
    server.awaitLine("event=usage_stored_again");
    EXPECT_THAT(run(disk, {"usage"}).out, HasSubstr("line from a full disk"));
  });
}

TEST_F(FullDisk, AnExportThatDoesNotFitLeavesTheOldFile) {
  onDisk([&](const SmallDisk& disk) {
    const std::string database = tables.file("t.db"), old = disk.file("out.csv");
    ASSERT_EQ(tolvar_test::runTool(TOLVARD, {"import", tables.file("large.csv"), "--db", database})
                  .exitStatus,
              0);
    tolvar_test::writeFile(old, "what was there");
    const std::uint64_t room = disk.freeBytes();
    const ToolRun full = tolvar_test::runTool(TOLVARD, {"export", old, "--db", database});
    EXPECT_EQ(full.exitStatus, 2);
    EXPECT_THAT(full.err, HasSubstr(old + ": cannot be written: No space left on device"));
    EXPECT_EQ(tolvar_test::readFile(old), "what was there");
    EXPECT_EQ(disk.freeBytes(), room);
  });
}

TEST_F(FullDisk, AServiceThatCannotStartSaysWhy) {
  onDisk([&](const SmallDisk& disk) {
    ASSERT_EQ(import(disk, "small.csv").exitStatus, 0);
    disk.fill();
    expectNoSpace(run(disk, {"serve", "--listen", "127.0.0.1:0"}), disk);
    disk.empty();
    const TolvardProcess server(disk.file("t.db"));
    EXPECT_EQ(ServiceClient(server.address()).firstPage().IPContent.size(), kSmall);
  });
}

}  // namespace
