#include <fcntl.h>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "tests/support/temp_dir.h"
#include "tests/tools/run_tool.h"

extern char** environ;

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using tolvar_test::ToolRun;

/// A table whose import takes a while.
std::string manyRows(std::uint32_t rows, const std::string& oper) {
  std::string text = "start,end,oper\n";
  for (std::uint32_t i = 0; i < rows; ++i)
    text += std::to_string(i * 16) + "," + std::to_string(i * 16 + 9) + "," + oper + "\n";
  return text;
}

class ImportFaults : public testing::Test {
 protected:
  ToolRun run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--db", database()});
    return tolvar_test::runTool(TOLVARD, arguments);
  }
  std::string database() const { return directory.file("t.db"); }
  std::string file(const std::string& name, const std::string& text) const {
    tolvar_test::writeFile(directory.file(name), text);
    return directory.file(name);
  }
  nlohmann::json versions() const {
    return nlohmann::json::parse(run({"versions", "--json"}).out, nullptr, false);
  }

  const tolvar_test::TempDir directory;
};

TEST_F(ImportFaults, AKilledImportLeavesTheOldVersionOrTheNewOne) {
  const std::string one = file("one.csv", manyRows(3000, "One"));
  const std::string two = file("two.csv", manyRows(3000, "Two"));
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_EQ(run({"import", one}).exitStatus, 0);
  const auto whole = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - begin);
  std::mt19937 random(11);
  std::size_t before = 1;
  int unfinished = 0;
  for (int round = 0; round < 25; ++round) {
    const std::string& table = round % 2 == 0 ? two : one;
    std::vector<std::string> words{TOLVARD, "import", table, "--force", "--db", database()};
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t import = 0;
    ASSERT_EQ(posix_spawn(&import, TOLVARD, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    // The moment is what the test varies; nothing waits for the import to get anywhere.
    std::this_thread::sleep_for(whole * static_cast<int>(random() % 120) / 100);
    kill(import, SIGKILL);
    int status = 0;
    waitpid(import, &status, 0);
    if (WIFSIGNALED(status)) ++unfinished;

    const ToolRun check = run({"check"});
    ASSERT_EQ(check.exitStatus, 0) << check.out << check.err;
    const auto now = versions();
    ASSERT_THAT(now.size(), AnyOf(before, std::min<std::size_t>(before + 1, 5)));
    for (const auto& version : now) ASSERT_EQ(version["ranges"], 3000);
    before = now.size();
  }
  EXPECT_GT(unfinished, 5);
}

TEST_F(ImportFaults, WithoutSpaceTheOldVersionStays) {
  ASSERT_EQ(run({"import", TOLVAR_SAMPLE}).exitStatus, 0);
  const auto before = versions();
  const std::string big = file("big.csv", manyRows(20000, "One"));
  // A limit of 256 KiB on every file stands for a full disk.
  const ToolRun full = tolvar_test::runTool(
      "/bin/sh",
      {"-c", "ulimit -f 512; exec \"$0\" import \"$1\" --db \"$2\"", TOLVARD, big, database()});
  EXPECT_EQ(full.exitStatus, 2) << full.out;
  EXPECT_THAT(full.err, HasSubstr("nothing was changed"));
  EXPECT_EQ(versions(), before);
  EXPECT_EQ(run({"check"}).exitStatus, 0);
  EXPECT_EQ(run({"import", big}).exitStatus, 0);
}

TEST_F(ImportFaults, AnExportThatFindsNoSpaceLeavesTheOldFile) {
  ASSERT_EQ(run({"import", file("big.csv", manyRows(20000, "One"))}).exitStatus, 0);
  const std::string old = file("out.csv", "what was there");
  const ToolRun full = tolvar_test::runTool(
      "/bin/sh",
      {"-c", "ulimit -f 512; exec \"$0\" export \"$1\" --db \"$2\"", TOLVARD, old, database()});
  EXPECT_EQ(full.exitStatus, 2) << full.out;
  EXPECT_THAT(full.err, HasSubstr(old + ": cannot be written: File too large"));
  EXPECT_EQ(tolvar_test::readFile(old), "what was there");
  for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
    EXPECT_THAT(entry.path().filename(),
                AnyOf("big.csv", "out.csv", "t.db", "t.db-wal", "t.db-shm"));
}

TEST_F(ImportFaults, GarbageInPlaceOfTheDatabaseIsLeftAlone) {
  const std::string garbage(100000, '\x5a');
  tolvar_test::writeFile(database(), garbage);
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"import", TOLVAR_SAMPLE},
                                             {"import", "--force", TOLVAR_SAMPLE},
                                             {"versions"},
                                             {"rollback", "1"},
                                             {"conf", "get"},
                                             {"usage"},
                                             {"serve", "--listen", "127.0.0.1:0"}}) {
    const ToolRun result = run(command);
    EXPECT_EQ(result.exitStatus, 2) << command[0];
    EXPECT_THAT(result.err, HasSubstr("no database")) << command[0];
  }
  // What the others fail of is what a check looks for.
  const ToolRun check = run({"check"});
  EXPECT_EQ(check.exitStatus, 1);
  EXPECT_THAT(check.out, AllOf(HasSubstr("no database"), HasSubstr("backup")));
  EXPECT_EQ(tolvar_test::readFile(database()), garbage);
}

TEST_F(ImportFaults, ACheckFindsThatTheFileWasCutOff) {
  ASSERT_EQ(run({"import", TOLVAR_SAMPLE}).exitStatus, 0);
  const std::string whole = tolvar_test::readFile(database());
  for (const std::size_t size : {std::size_t{50}, std::size_t{4096}, whole.size() - 4096}) {
    tolvar_test::writeFile(database(), whole.substr(0, size));
    const ToolRun check = run({"check"});
    EXPECT_EQ(check.exitStatus, 1) << size;
    EXPECT_THAT(check.out, HasSubstr("damaged")) << size;
    const auto found = nlohmann::json::parse(run({"check", "--json"}).out, nullptr, false);
    EXPECT_EQ(found["intact"], false) << size;
    EXPECT_EQ(found["faults"].size(), 1u) << size;
  }
}

TEST_F(ImportFaults, DamageAnywhereIsFoundAndNeverExported) {
  ASSERT_EQ(run({"import", file("one.csv", manyRows(3000, "One"))}).exitStatus, 0);
  const std::string good = tolvar_test::readFile(database());
  const std::string exported = run({"export"}).out;
  int found = 0;
  for (int eighth = 0; eighth < 8; ++eighth) {
    std::string bytes = good;
    const std::size_t begin = bytes.size() * static_cast<std::size_t>(eighth) / 8;
    for (std::size_t i = begin; i < begin + 3000; ++i) bytes[i] = '\x33';
    tolvar_test::writeFile(database(), bytes);
    const ToolRun check = run({"check"});
    if (check.exitStatus != 0) ++found;
    // Damage in a page that nothing uses is none.
    const ToolRun after = run({"export"});
    EXPECT_TRUE(after.exitStatus == 2 || after.out == exported) << eighth;
    if (check.exitStatus == 0) {
      EXPECT_EQ(after.out, exported) << eighth;
    } else {
      EXPECT_EQ(check.exitStatus, 1) << eighth;
      EXPECT_THAT(check.out, HasSubstr("backup")) << eighth;
    }
  }
  EXPECT_GE(found, 4);
}

TEST_F(ImportFaults, AFileThatIsTooLargeIsRefusedBeforeItIsRead) {
  const std::string large = file("large.csv", "# a comment that does not end");
  std::filesystem::resize_file(large, std::uintmax_t{3} << 30);  // takes no space
  const ToolRun result = tolvar_test::runTool(
      "/bin/sh",
      {"-c", "ulimit -t 5; exec \"$0\" import \"$1\" --db \"$2\"", TOLVARD, large, database()});
  EXPECT_EQ(result.exitStatus, 2);
  EXPECT_THAT(result.err, HasSubstr("is larger than 1073741824 bytes"));
}

TEST_F(ImportFaults, ImportsAtOnceDoNotMix) {
  ASSERT_EQ(run({"import", file("base.csv", manyRows(2000, "Base"))}).exitStatus, 0);
  std::vector<std::thread> imports;
  std::array<ToolRun, 4> results;
  for (std::size_t i = 0; i < results.size(); ++i) {
    const std::string table =
        file("t" + std::to_string(i), manyRows(2000, "Op" + std::to_string(i)));
    imports.emplace_back([this, table, &result = results[i]] { result = run({"import", table}); });
  }
  for (std::thread& import : imports) import.join();
  std::size_t done = 0;
  for (const ToolRun& result : results) {
    if (result.exitStatus == 0) {
      ++done;
    } else {
      EXPECT_EQ(result.exitStatus, 2);
      EXPECT_THAT(result.err, HasSubstr("meanwhile"));
    }
  }
  EXPECT_GE(done, 1u);
  EXPECT_EQ(versions().size(), done + 1);
  EXPECT_EQ(run({"check"}).exitStatus, 0);
}

}  // namespace
