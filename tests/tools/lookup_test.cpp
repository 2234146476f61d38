#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/support/shm_keys.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/run_tool.h"

extern char** environ;

namespace {

using tolvar_test::runTool;
using tolvar_test::ShmKeys;
using tolvar_test::TempDir;
using tolvar_test::ToolRun;
using tolvar_test::writeFile;

ToolRun lookup(std::vector<std::string> arguments, const std::string& input = "") {
  arguments.insert(arguments.begin(), "lookup");
  return runTool(TOLVAR_TOOL, arguments, input);
}

std::size_t lines(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST(Lookup, AnswersFromTheSampleTableDownToTheDistrict) {
  const ToolRun run = lookup({"--table", TOLVAR_SAMPLE, "192.0.2.1", "198.18.0.1"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out,
            "192.0.2.1        Germany / Nordmark / Altenhafen / Speicherstadt  operator=Hansewerk "
            "Netz  network=fixed  extension=campus  source=FROM_QK  (a documentation address (RFC "
            "5737))\n"
            "198.18.0.1       Brazil / Serra Clara / Rio Manso / Centro  operator=Ponte Telecom  "
            "network=fixed  source=FROM_PLEX1  (a benchmarking address (RFC 2544))\n");
  EXPECT_EQ(run.err, "");
}

TEST(Lookup, AnswersFromTheCountryTable) {
  const ToolRun run = lookup({"--table", TOLVAR_COUNTRY_TABLE, "8.8.8.8", "193.0.6.139"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out,
            "8.8.8.8          United States\n"
            "193.0.6.139      Netherlands\n");
}

TEST(Lookup, ReadsAddressesFromStandardInput) {
  const ToolRun run = lookup({"--table", TOLVAR_SAMPLE}, "  8.8.8.8 \r\n\n# note\n1.1.1.1");
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(lines(run.out), 2u);
  EXPECT_EQ(run.out.rfind("8.8.8.8 ", 0), 0u);
}

TEST(Lookup, ALineThatIsTooLongIsSaidAndTheNextOnesAreAnswered) {
  const std::string vast(100000, 'x');
  const std::string input = "# " + vast + "\n" + vast + "\n8.8.8.8\n";
  const ToolRun run = lookup({"--table", TOLVAR_SAMPLE}, input);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.out.rfind("line 2 is longer than 256 bytes and is no IPv4 address\n8.8.8.8 ", 0),
            0u)
      << run.out;
  EXPECT_EQ(lines(run.out), 2u);
  const ToolRun json = lookup({"--table", TOLVAR_SAMPLE, "--json"}, input);
  const auto object = nlohmann::json::parse(json.out.substr(0, json.out.find('\n')));
  EXPECT_TRUE(object["address"].is_null());
  EXPECT_EQ(object["valid"], false);
  EXPECT_EQ(object["problem"], "line 2 is longer than 256 bytes and is no IPv4 address");
}

/// Runs the tool in a shell, where its output can go elsewhere.
ToolRun shell(const std::string& arguments) {
  return runTool("/bin/sh", {"-c", std::string(TOLVAR_TOOL) + " " + arguments});
}

TEST(Output, WhatIsLostIsAFailure) {
  const std::string table = std::string("--table ") + TOLVAR_SAMPLE;
  for (const std::string& words :
       {"lookup " + table + " 1.1.1.1", "lookup --json " + table + " 1.1.1.1",
        "lookup " + table + " </usr/share/tor/geoip", std::string("shm ls"),
        std::string("shm ls --json"), std::string("--help"), std::string("lookup --help"),
        std::string("--version")}) {
    const ToolRun run = shell(words + " >/dev/full");
    EXPECT_EQ(run.exitStatus, 2) << words;
    EXPECT_EQ(run.err, "tolvar: standard output: No space left on device\n") << words;
  }
}

TEST(Output, WhatIsClosedIsAFailureAndNoFileOfTheProgramsTakesItsPlace) {
  const TempDir directory;
  for (const std::string& words :
       {std::string("lookup --table ") + TOLVAR_SAMPLE + " --log " + directory.path() + " 8.8.8.8",
        std::string("shm ls"), std::string("--help")}) {
    const ToolRun run = shell(words + " >&-");
    EXPECT_EQ(run.exitStatus, 2) << words;
    EXPECT_EQ(run.err, "tolvar: standard output: Bad file descriptor\n") << words;
  }
  EXPECT_EQ(tolvar_test::readFile(directory.file("Tolvar/API/Tolvar.API.log")).find("8.8.8.8"),
            std::string::npos);
}

TEST(Output, AReaderThatHasSeenEnoughIsNoFailure) {
  const ToolRun run =
      shell(std::string("lookup --table ") + TOLVAR_SAMPLE +
            " </usr/share/tor/geoip 2>&1 | head -n 1; " + TOLVAR_TOOL + " --help | head -n 1");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(lines(run.out), 2u);
}

TEST(Lookup, PrintsOneJsonObjectALine) {
  const ToolRun run = lookup({"--table", TOLVAR_SAMPLE, "--json", "8.8.8.8", "x", "10.0.0.1"});
  EXPECT_EQ(run.exitStatus, 1);
  std::istringstream in(run.out);
  std::string line;
  std::vector<nlohmann::json> objects;
  while (std::getline(in, line)) objects.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(objects.size(), 3u);
  EXPECT_EQ(objects[0]["country"]["id"], 840);
  EXPECT_EQ(objects[1]["valid"], false);
  EXPECT_EQ(objects[2]["special"], "a private address (RFC 1918)");
}

TEST(Lookup, AnAddressInNoRangeGivesStatusOneAndTheOthersAreStillAnswered) {
  const ToolRun run = lookup({"--table", TOLVAR_SAMPLE, "77.7.7.7", "8.8.8.8"});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.out.substr(0, run.out.find('\n')),
            "77.7.7.7         not found: no range of the table holds it");
  EXPECT_EQ(lines(run.out), 2u);
}

TEST(Lookup, ABadTableGivesStatusTwoAndSaysWhere) {
  const TempDir directory;
  writeFile(directory.file("bad.csv"),
            "start,end,country\n1.0.0.0,1.0.0.9,DE\n1.0.0.5,1.0.0.7,FR\n");
  const ToolRun run = lookup({"--table", directory.file("bad.csv"), "1.0.0.1"});
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("bad.csv:3:"), std::string::npos) << run.err;
}

TEST(Lookup, AMissingTableGivesStatusTwo) {
  const ToolRun run = lookup({"--table", "/does/not/exist", "1.0.0.1"});
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_NE(run.err.find("/does/not/exist"), std::string::npos);
}

TEST(Lookup, AnUnknownFlagGivesStatusTwo) {
  const ToolRun run = lookup({"--tabel", "x"});
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_NE(run.err.find("--help"), std::string::npos);
}

TEST(Lookup, CodesNamesAnotherFileForCountries) {
  const TempDir directory;
  writeFile(directory.file("codes.json"),
            R"({"3166-1":[{"alpha_2":"DE","alpha_3":"DEU","numeric":"276","name":"Teutonia"}]})");
  writeFile(directory.file("table"), "16777216,16777471,DE\n");
  const ToolRun run = lookup(
      {"--table", directory.file("table"), "--codes", directory.file("codes.json"), "1.0.0.1"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.out, "1.0.0.1          Teutonia\n");
}

TEST(Lookup, TimingGoesToStandardErrorAndAnswersStayClean) {
  const ToolRun run = lookup({"--table", TOLVAR_SAMPLE, "--timing", "8.8.8.8"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(lines(run.out), 1u);
  for (const char* word : {"import", "download", "publication", "one lookup", "ranges"})
    EXPECT_NE(run.err.find(word), std::string::npos) << word;
}

std::string listOf(const ShmKeys& keys) {
  return std::to_string(keys.data0()) + "," + std::to_string(keys.data1()) + "," +
         std::to_string(keys.size());
}

TEST(Lookup, GivenKeysKeepTheImageForTheNextRun) {
  const ShmKeys keys;
  EXPECT_EQ(lookup({"--table", TOLVAR_SAMPLE, "--keys", listOf(keys), "8.8.8.8"}).exitStatus, 0);
  EXPECT_GE(shmget(keys.data0(), 0, 0), 0);
  // Another table under the same keys answers from that table, not from the image found.
  const ToolRun other =
      lookup({"--table", TOLVAR_COUNTRY_TABLE, "--keys", listOf(keys), "193.0.6.139"});
  EXPECT_EQ(other.exitStatus, 0);
  EXPECT_EQ(other.out, "193.0.6.139      Netherlands\n");
}

TEST(Lookup, TablesThatTakeTurnsUnderTheSameKeysAnswerWithTheirOwnNames) {
  const ShmKeys keys;
  const std::string sample = lookup({"--table", TOLVAR_SAMPLE, "8.8.8.8"}).out;
  ASSERT_NE(sample.find("operator=Granite Backbone"), std::string::npos) << sample;
  for (int turn = 0; turn < 2; ++turn) {
    EXPECT_EQ(lookup({"--table", TOLVAR_SAMPLE, "--keys", listOf(keys), "8.8.8.8"}).out, sample);
    EXPECT_EQ(lookup({"--table", TOLVAR_COUNTRY_TABLE, "--keys", listOf(keys), "8.8.8.8"}).out,
              "8.8.8.8          United States\n");
  }
}

TEST(Lookup, AnImageWithOtherNamesForTheSameRangesIsRefused) {
  const ShmKeys keys;
  const TempDir directory;
  const auto run = [&](const std::string& oper) {
    writeFile(directory.file("table.csv"), "start,end,oper\n1.0.0.0,1.0.0.9," + oper + "\n");
    return lookup({"--table", directory.file("table.csv"), "--keys", listOf(keys), "1.0.0.1"});
  };
  EXPECT_EQ(run("Netz").exitStatus, 0);
  EXPECT_EQ(run("Netz").exitStatus, 0);
  const ToolRun other = run("Funk");
  EXPECT_EQ(other.exitStatus, 2);
  EXPECT_EQ(other.out, "");
  EXPECT_NE(other.err.find("\"Netz\" instead of \"Funk\""), std::string::npos) << other.err;
}

TEST(Lookup, AnExportedTableKeepsItsIds) {
  const TempDir directory;
  writeFile(directory.file("table.csv"),
            "#id\t6\t0\t77\tNetz\nstart,end,oper\n1.0.0.0,1.0.0.9,Netz\n");
  const ToolRun run = lookup({"--table", directory.file("table.csv"), "--json", "1.0.0.1"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_NE(run.out.find(R"("oper":{"id":77,"name":"Netz"})"), std::string::npos) << run.out;
}

TEST(Lookup, KeysThatAreZeroOrEqualAreRefused) {
  const ToolRun run = lookup({"--table", TOLVAR_SAMPLE, "--keys", "7,7,9", "8.8.8.8"});
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_NE(run.err.find("must differ"), std::string::npos) << run.err;
}

TEST(Lookup, KeysThatAreNoNumbersAreRefused) {
  for (const char* keys : {"1,2", "1,2,x", "1,2,3,4", "99999999999,2,3"}) {
    const ToolRun run = lookup({"--table", TOLVAR_SAMPLE, "--keys", keys, "8.8.8.8"});
    EXPECT_EQ(run.exitStatus, 2) << keys;
    EXPECT_NE(run.err.find("--keys"), std::string::npos) << run.err;
  }
}

TEST(Lookup, LogIsKeptWhereAskedFor) {
  const TempDir directory;
  EXPECT_EQ(lookup({"--table", TOLVAR_SAMPLE, "--log", directory.path(), "8.8.8.8"}).exitStatus, 0);
  EXPECT_TRUE(std::filesystem::exists(directory.file("Tolvar/API/Tolvar.API.log")));
}

TEST(Lookup, ALogThatCannotBeWrittenIsAFailureBeforeAnythingIsLookedUp) {
  const TempDir directory;
  writeFile(directory.file("file"), "");
  const ToolRun run =
      lookup({"--table", TOLVAR_SAMPLE, "--log", directory.file("file"), "8.8.8.8"});
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err,
            "tolvar: --log: " + directory.file("file/Tolvar/API/Tolvar.API.log") +
                " cannot be written; name another directory (errno 20: Not a directory)\n");
}

TEST(Lookup, AnAddressThatNoServiceCanHaveIsRefusedBeforeAnythingIsStarted) {
  for (const char* address : {"127.0.0.1:116497", "localhost", ",,", ""}) {
    const ToolRun run = lookup({"--service", address, "8.8.8.8"});
    EXPECT_EQ(run.exitStatus, 2) << address;
    EXPECT_NE(run.err.find("is no address; expected HOST:PORT"), std::string::npos) << run.err;
  }
}

TEST(Help, AMistakeIsNamedWithTheCommandThatKnowsBetter) {
  EXPECT_EQ(shell("lokup 8.8.8.8").err,
            "tolvar: name a command: lookup, watch or shm; \"lokup\" is not known; \"8.8.8.8\" is "
            "not known\nSee `tolvar --help`.\n");
  EXPECT_EQ(shell("shm").err,
            "tolvar shm: name a command: ls, show, verify or rm\nSee `tolvar shm --help`.\n");
  EXPECT_EQ(
      shell("watch --sevice localhost:1").err,
      "tolvar watch: --service is required; \"--sevice\" is not known; \"localhost:1\" is not "
      "known\nSee `tolvar watch --help`.\n");
  const ToolRun twice = shell("lookup --table a --table b");
  EXPECT_EQ(twice.exitStatus, 2);
  EXPECT_NE(twice.err.find("See `tolvar lookup --help`."), std::string::npos) << twice.err;
}

TEST(Help, EachCommandSaysWhatItsExitStatusMeans) {
  EXPECT_NE(lookup({"--help"}).out.find("1 at least one was not or is no address"),
            std::string::npos);
  EXPECT_NE(shell("watch --help").out.find("1 a digest was waited for and did not come"),
            std::string::npos);
  EXPECT_EQ(shell("shm ls --help").out.find("digest"), std::string::npos);
}

/// Names of temporary directories of the tool.
std::vector<std::string> runDirectories(const std::string& below) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(below))
    if (entry.path().filename().string().rfind("tolvar-", 0) == 0)
      names.push_back(entry.path().string());
  return names;
}

TEST(Lookup, NothingStaysBehindInATemporaryDirectoryOfARelativeName) {
  const TempDir directory;
  std::filesystem::create_directory(directory.file("own"));
  const ToolRun run =
      runTool("/bin/sh", {"-c", "cd \"$0\" && TMPDIR=own exec \"$1\" lookup --table \"$2\" 8.8.8.8",
                          directory.path(), TOLVAR_TOOL, TOLVAR_SAMPLE});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_TRUE(std::filesystem::is_empty(directory.file("own")));
}

TEST(Lookup, ATemporaryDirectoryThatIsNoneIsSaid) {
  const ToolRun run =
      runTool("/bin/sh", {"-c", "TMPDIR=/does/not/exist exec \"$0\" lookup --table \"$1\" 8.8.8.8",
                          TOLVAR_TOOL, TOLVAR_SAMPLE});
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_NE(run.err.find("/does/not/exist is none; set TMPDIR to"), std::string::npos) << run.err;
}

TEST(Lookup, ASignalEndsItAndNothingStaysBehind) {
  const TempDir temporary;
  int toTool[2], fromTool[2];
  ASSERT_EQ(pipe(toTool), 0);
  ASSERT_EQ(pipe(fromTool), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toTool[0], 0);
  posix_spawn_file_actions_adddup2(&actions, fromTool[1], 1);
  for (const int fd : {toTool[0], toTool[1], fromTool[0], fromTool[1]})
    posix_spawn_file_actions_addclose(&actions, fd);
  const std::string setting = "TMPDIR=" + temporary.path();
  char* environment[] = {const_cast<char*>(setting.c_str()), nullptr};
  std::string path = TOLVAR_TOOL, command = "lookup", flag = "--table", table = TOLVAR_SAMPLE,
              json = "--json";
  char* argv[] = {path.data(), command.data(), flag.data(), table.data(), json.data(), nullptr};
  pid_t child = 0;
  ASSERT_EQ(posix_spawn(&child, path.c_str(), &actions, nullptr, argv, environment), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(toTool[0]);
  close(fromTool[1]);
  // More than a stdio buffer of questions, so that an answer arrives while the input stays open.
  std::string questions;
  for (int i = 0; i < 64; ++i) questions += "192.0.2.1\n";
  ASSERT_EQ(write(toTool[1], questions.data(), questions.size()),
            static_cast<ssize_t>(questions.size()));
  char byte = 0;
  ASSERT_EQ(read(fromTool[0], &byte, 1), 1);
  EXPECT_EQ(runDirectories(temporary.path()).size(), 1u);
  kill(child, SIGTERM);
  int status = 0;
  waitpid(child, &status, 0);
  close(toTool[1]);
  close(fromTool[0]);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 128 + SIGTERM);
  EXPECT_TRUE(runDirectories(temporary.path()).empty());
}

}  // namespace
