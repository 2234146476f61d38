#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/support/temp_dir.h"
#include "tests/tools/run_tool.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tolvar_test::ToolRun;

constexpr const char* kHalf = "start,end,country\n1.0.0.0,1.0.0.255,DE\n2.0.0.0,2.0.0.255,FR\n";

class Tolvard : public testing::Test {
 protected:
  /// Runs it on the test's database.
  ToolRun run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--db", database()});
    return tolvar_test::runTool(TOLVARD, arguments);
  }

  /// Runs a line of the shell, in which $0 is the program and $1 the first of the arguments.
  static ToolRun shell(const std::string& line, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-c", line, TOLVARD});
    return tolvar_test::runTool("/bin/sh", arguments);
  }

  nlohmann::json json(std::vector<std::string> arguments) const {
    arguments.push_back("--json");
    const ToolRun result = run(arguments);
    return nlohmann::json::parse(result.out, nullptr, false);
  }

  std::string file(const std::string& name, const std::string& text) const {
    tolvar_test::writeFile(directory.file(name), text);
    return directory.file(name);
  }

  std::string database() const { return directory.file("t.db"); }
  std::size_t versionCount() const { return json({"versions"}).size(); }

  const tolvar_test::TempDir directory;
};

TEST_F(Tolvard, ImportsAndListsVersions) {
  const ToolRun first = run({"import", TOLVAR_SAMPLE});
  EXPECT_EQ(first.exitStatus, 0) << first.err;
  EXPECT_THAT(first.out, HasSubstr("imported as version 1"));
  EXPECT_EQ(run({"import", "--force", file("half.csv", kHalf)}).exitStatus, 0);
  const auto versions = json({"versions"});
  ASSERT_EQ(versions.size(), 2u);
  EXPECT_EQ(versions[1]["ranges"], 2);
  EXPECT_EQ(versions[1]["addresses"], 512);
  EXPECT_EQ(versions[0]["served"], false);
  EXPECT_EQ(versions[1]["served"], true);
  EXPECT_THAT(run({"versions"}).out, AllOf(HasSubstr("sample.csv"), HasSubstr("half.csv")));
}

TEST_F(Tolvard, RefusesAnImportThatLosesMuch) {
  run({"import", TOLVAR_SAMPLE});
  const std::string half = file("half.csv", kHalf);
  const ToolRun dry = run({"import", "--dry-run", half});
  EXPECT_EQ(dry.exitStatus, 1);
  EXPECT_THAT(dry.err, AllOf(HasSubstr("would be refused"), HasSubstr("fewer ranges")));
  const ToolRun refused = run({"import", half});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_THAT(refused.err, AllOf(HasSubstr("% fewer ranges"), HasSubstr("2 instead of 40"),
                                 HasSubstr("nothing was changed"), HasSubstr("--force")));
  EXPECT_EQ(versionCount(), 1u);
  const auto result = json({"import", half});
  EXPECT_EQ(result["result"], "refused");
  EXPECT_EQ(result["objections"].size(), 2u);
}

TEST_F(Tolvard, RefusesAnEmptyImport) {
  const std::string empty = file("empty.csv", "start,end\n");
  EXPECT_EQ(run({"import", empty}).exitStatus, 1);
  EXPECT_FALSE(std::filesystem::exists(database()));
  EXPECT_EQ(run({"import", "--force", empty}).exitStatus, 0);
  EXPECT_EQ(versionCount(), 1u);
}

TEST_F(Tolvard, ADryRunWritesNothing) {
  const ToolRun dry = run({"import", "--dry-run", TOLVAR_SAMPLE});
  EXPECT_EQ(dry.exitStatus, 0) << dry.err;
  EXPECT_THAT(dry.out, HasSubstr("would be imported"));
  EXPECT_FALSE(std::filesystem::exists(database()));
}

TEST_F(Tolvard, TheSameTableAgainIsNoNewVersion) {
  run({"import", TOLVAR_SAMPLE});
  const ToolRun again = run({"import", TOLVAR_SAMPLE});
  EXPECT_EQ(again.exitStatus, 0);
  EXPECT_THAT(again.out, HasSubstr("nothing to do"));
  EXPECT_EQ(versionCount(), 1u);
  EXPECT_EQ(run({"import", "--force", TOLVAR_SAMPLE}).exitStatus, 0);
  EXPECT_EQ(versionCount(), 2u);
}

TEST_F(Tolvard, KeepsAsManyVersionsAsTold) {
  for (int i = 0; i < 4; ++i) run({"import", "--force", "--keep", "2", TOLVAR_SAMPLE});
  EXPECT_EQ(versionCount(), 2u);
}

TEST_F(Tolvard, ABadFileNamesItsLineAndChangesNothing) {
  run({"import", TOLVAR_SAMPLE});
  const ToolRun bad = run({"import", file("bad.csv", "start,end\n1.2.3.4,1.2.3.400\n")});
  EXPECT_EQ(bad.exitStatus, 2);
  EXPECT_THAT(bad.err, AllOf(HasSubstr("bad.csv:2:9"), HasSubstr("1.2.3.400")));
  EXPECT_EQ(run({"import", directory.file("absent.csv")}).exitStatus, 2);
  EXPECT_EQ(versionCount(), 1u);
}

TEST_F(Tolvard, NamesThatChangeAloneAreWarnedAbout) {
  run({"import", file("a.csv", "start,end,country\n1.0.0.0,1.0.0.1,Germany\n")});
  const ToolRun named =
      run({"import", file("b.csv", "start,end,country\n1.0.0.0,1.0.0.1,GERMANY\n")});
  EXPECT_EQ(named.exitStatus, 0);
  EXPECT_THAT(named.err, HasSubstr("only names differ"));
}

TEST_F(Tolvard, RollsBack) {
  run({"import", TOLVAR_SAMPLE});
  run({"import", "--force", file("half.csv", kHalf)});
  const ToolRun back = run({"rollback", "1"});
  EXPECT_EQ(back.exitStatus, 0) << back.err;
  const auto versions = json({"versions"});
  ASSERT_EQ(versions.size(), 3u);
  EXPECT_EQ(versions[2]["digest"], versions[0]["digest"]);
  EXPECT_GT(versions[2]["timesTamp"], versions[1]["timesTamp"]);
  EXPECT_THAT(run({"rollback", "3"}).out, HasSubstr("nothing to do"));
  const ToolRun absent = run({"rollback", "99"});
  EXPECT_EQ(absent.exitStatus, 2);
  EXPECT_THAT(absent.err, HasSubstr("no version 99"));
}

TEST_F(Tolvard, AnExportImportsToTheSameAndExportsToTheSameBytes) {
  run({"import", file("first.csv", "start,end,oper\n9.0.0.0,9.0.0.9,Zeta\n")});
  run({"import", "--force", TOLVAR_SAMPLE});  // ids now depend on the history
  const std::string exported = directory.file("out.csv");
  EXPECT_EQ(run({"export", exported}).exitStatus, 0);
  EXPECT_EQ(run({"export"}).out, tolvar_test::readFile(exported));

  const std::string other = directory.file("other.db");
  const ToolRun import = tolvar_test::runTool(TOLVARD, {"import", exported, "--db", other});
  EXPECT_EQ(import.exitStatus, 0) << import.err;
  const ToolRun again = tolvar_test::runTool(TOLVARD, {"export", "--db", other});
  EXPECT_EQ(again.out, tolvar_test::readFile(exported));
  EXPECT_THAT(run({"export", "--version", "1"}).out, HasSubstr("9.0.0.0,9.0.0.9,,,,,,Zeta"));
}

TEST_F(Tolvard, AnExportThatComesThroughAPipeKeepsItsIds) {
  run({"import", file("first.csv", "start,end,oper\n9.0.0.0,9.0.0.9,Zeta\n")});
  run({"import", "--force", TOLVAR_SAMPLE});  // ids now depend on the history
  const std::string exported = directory.file("out.csv");
  ASSERT_EQ(run({"export", exported}).exitStatus, 0);
  const std::string other = directory.file("other.db");
  const ToolRun import =
      shell("cat \"$1\" | \"$0\" import /dev/stdin --db \"$2\"", {exported, other});
  EXPECT_EQ(import.exitStatus, 0) << import.err;
  EXPECT_EQ(tolvar_test::runTool(TOLVARD, {"export", "--db", other}).out,
            tolvar_test::readFile(exported));
}

TEST_F(Tolvard, AnExportThatCannotBeWrittenIsSaid) {
  run({"import", TOLVAR_SAMPLE});
  const ToolRun nowhere = run({"export", directory.file("absent/out.csv")});
  EXPECT_EQ(nowhere.exitStatus, 2);
  EXPECT_THAT(nowhere.err, HasSubstr("cannot be written"));
  EXPECT_EQ(run({"export", "--version", "7"}).exitStatus, 2);
}

TEST_F(Tolvard, AnExportNeverTakesThePlaceOfItsDatabase) {
  run({"import", TOLVAR_SAMPLE});
  std::filesystem::create_symlink("t.db", directory.file("link.db"));
  std::filesystem::create_hard_link(database(), directory.file("same.db"));
  for (const char* name :
       {"t.db", "./t.db", "link.db", "same.db", "t.db-wal", "t.db-shm", "t.db-journal"}) {
    const ToolRun result = run({"export", directory.file(name)});
    EXPECT_EQ(result.exitStatus, 2) << name;
    EXPECT_THAT(result.err, HasSubstr("belongs to the database")) << name;
  }
  const std::string byLink = directory.file("link.db");
  EXPECT_EQ(
      tolvar_test::runTool(TOLVARD, {"export", "--db", byLink, database() + "-wal"}).exitStatus, 2);
  const ToolRun relative =
      shell("cd \"$1\" && exec \"$0\" export --db t.db t.db-journal", {directory.path()});
  EXPECT_EQ(relative.exitStatus, 2);
  EXPECT_EQ(run({"check"}).exitStatus, 0);
  EXPECT_EQ(versionCount(), 1u);
}

TEST_F(Tolvard, AnExportToStandardOutputByNameGoesBehindWhatIsThere) {
  run({"import", TOLVAR_SAMPLE});
  // Through a link of the test's own, because a defect here would replace what it leads to.
  std::filesystem::create_symlink("/dev/stdout", directory.file("out"));
  const std::string all = directory.file("all.csv");
  const ToolRun result =
      shell("{ echo first; \"$0\" export \"$1\" --db \"$2\"; echo last; } > \"$3\"",
            {directory.file("out"), database(), all});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(tolvar_test::readFile(all), "first\n" + run({"export"}).out + "last\n");
}

TEST_F(Tolvard, ADatabaseIsAlwaysAFile) {
  const tolvar_test::WorkingDirectory here;
  for (const std::string name : {":memory:", "file:foo.db?mode=memory"}) {
    const ToolRun import = tolvar_test::runTool(TOLVARD, {"import", TOLVAR_SAMPLE, "--db", name});
    EXPECT_EQ(import.exitStatus, 0) << import.err;
    EXPECT_TRUE(std::filesystem::exists(here.file(name))) << name;
    EXPECT_THAT(tolvar_test::runTool(TOLVARD, {"check", "--db", name}).out,
                HasSubstr(name + ": intact, 1 version"));
  }
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"import", TOLVAR_SAMPLE},
                                             {"import", "--dry-run", TOLVAR_SAMPLE},
                                             {"versions"},
                                             {"check"},
                                             {"rollback", "1"},
                                             {"conf", "get"},
                                             {"usage"},
                                             {"export"}}) {
    std::vector<std::string> words = command;
    words.insert(words.end(), {"--db", ""});
    const ToolRun result = tolvar_test::runTool(TOLVARD, words);
    EXPECT_EQ(result.exitStatus, 2) << command[0];
    EXPECT_THAT(result.err, HasSubstr("the path is empty")) << command[0];
  }
}

TEST_F(Tolvard, NumbersThatAreNoneAreSaid) {
  run({"import", TOLVAR_SAMPLE});
  for (const char* number : {"99999999999999999999", "0", "-1", "01", "1x"}) {
    const ToolRun back = run({"rollback", number});
    EXPECT_EQ(back.exitStatus, 2) << number;
    EXPECT_THAT(back.err, HasSubstr(std::string(number) + " is no number of a version")) << number;
    EXPECT_THAT(run({"export", "--version", number}).err, HasSubstr("is no number of a version"));
  }
  for (const char* number : {"-1", "99999999999999999999"}) {
    const ToolRun usage = run({"usage", "--top", number});
    EXPECT_EQ(usage.exitStatus, 2) << number;
    EXPECT_THAT(usage.err, HasSubstr("not in range")) << number;
  }
}

TEST_F(Tolvard, TheConfigurationRaisesItsVersion) {
  run({"import", TOLVAR_SAMPLE});
  EXPECT_EQ(json({"conf", "get"})["confVersion"], 1);
  const auto set = json({"conf", "set", "statisOpen=true", "simpleLogCitys=Altenhafen"});
  EXPECT_EQ(set["confVersion"], 2);
  EXPECT_EQ(json({"conf", "set", "statisOpen=true"})["confVersion"], 2);
  EXPECT_EQ(json({"conf", "get"})["simpleLogCitys"][0], "Altenhafen");
  EXPECT_THAT(run({"conf", "get"}).out, HasSubstr("logBufferLimit  1000"));
  // One bad field, and the good one before it is not stored either.
  const ToolRun bad = run({"conf", "set", "statisOpen=false", "simplingRate=x"});
  EXPECT_EQ(bad.exitStatus, 2);
  EXPECT_EQ(json({"conf", "get"})["statisOpen"], true);
}

TEST_F(Tolvard, WhatWasDoneIsToldWhenOutputIsLost) {
  const auto full = [&](std::vector<std::string> words) {
    words.insert(words.end(), {"--db", database()});
    const ToolRun result = shell("exec \"$0\" \"$@\" > /dev/full", words);
    EXPECT_EQ(result.exitStatus, 2) << words[0];
    return result.err;
  };
  EXPECT_THAT(full({"import", TOLVAR_SAMPLE}), HasSubstr("all the same, version 1 was imported"));
  EXPECT_EQ(versionCount(), 1u);
  run({"import", "--force", file("half.csv", kHalf)});
  EXPECT_THAT(full({"rollback", "1"}), HasSubstr("version 3 has the content of version 1"));
  EXPECT_EQ(versionCount(), 3u);
  EXPECT_THAT(full({"conf", "set", "statisOpen=true"}), HasSubstr("the configuration was set"));
  EXPECT_EQ(json({"conf", "get"})["statisOpen"], true);
  EXPECT_THAT(full({"versions"}), Not(HasSubstr("all the same")));
}

TEST_F(Tolvard, ChecksAndShowsUsage) {
  run({"import", TOLVAR_SAMPLE});
  const ToolRun check = run({"check"});
  EXPECT_EQ(check.exitStatus, 0);
  EXPECT_THAT(check.out, HasSubstr("intact, 1 version"));
  EXPECT_THAT(run({"usage"}).out, HasSubstr("no hits"));
  EXPECT_THAT(json({"usage"})["hits"], IsEmpty());
}

TEST_F(Tolvard, BadFlagsAndAbsentDatabasesAreSaid) {
  for (const char* command : {"versions", "check", "usage", "export"}) {
    const ToolRun result = run({command});
    EXPECT_EQ(result.exitStatus, 2) << command;
    EXPECT_THAT(result.err, HasSubstr("no such file")) << command;
  }
  EXPECT_EQ(run({"import"}).exitStatus, 2);
  EXPECT_EQ(run({"import", TOLVAR_SAMPLE, "--keep", "0"}).exitStatus, 2);
  EXPECT_EQ(run({"nonsense"}).exitStatus, 2);
  EXPECT_FALSE(std::filesystem::exists(database()));
}

}  // namespace
