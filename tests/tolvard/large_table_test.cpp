// The whole way of a large table: from a file into tolvard, over the network into a client and its
// shared memory, and from there into another client; with the memory that each step takes.
// TOLVAR_LARGE_TABLE_RANGES in the environment takes another number of ranges.
#include <gmock/gmock.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <sstream>

#include "tests/support/shm_keys.h"
#include "tests/tolvard/generated_table.h"
#include "tests/tolvard/serve_fixture.h"

namespace {

using testing::HasSubstr;
using tolvar_test::ChildProcess;
using tolvar_test::GeneratedTable;
using tolvar_test::ShmKeys;
using tolvar_test::TolvardProcess;

constexpr std::uint32_t kPage = 50000;

// Memory that may be taken up, bytes a range and KiB besides. docs/service.md has what is.
constexpr long kImportBytes = 160;
constexpr long kServiceBytes = 90;
constexpr long kClientBytes = 90;
constexpr long kNodeBytes = 128;  ///< of the image, for a client that reads it
#if defined(__SANITIZE_ADDRESS__)
constexpr std::uint32_t kDefaultRanges = 200000;
constexpr long kBesidesKib = 2 << 20;  // sanitizers keep what was freed for a while
#else
constexpr std::uint32_t kDefaultRanges = 3000000;
constexpr long kBesidesKib = 40 << 10;
#endif

/// Both segments of the image and all processes at once, bytes a range.
constexpr long kNeededBytes = 1000;

std::string dottedQuad(std::uint32_t ip) {
  return std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 255) + "." +
         std::to_string(ip >> 8 & 255) + "." + std::to_string(ip & 255);
}

/// The number behind `name` in a file of /proc that has one a line, in KiB.
long procKib(const std::string& path, const std::string& name) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(name + ":")) return std::stol(line.substr(name.size() + 1));
  }
  ADD_FAILURE() << "no " << name << " in " << path;
  return 0;
}

long peakOfRunningKib(pid_t process) {
  return procKib("/proc/" + std::to_string(process) + "/status", "VmHWM");
}

long segmentKib(key_t key) {
  shmid_ds segment{};
  EXPECT_EQ(shmctl(shmget(key, 0, 0), IPC_STAT, &segment), 0);
  return static_cast<long>(segment.shm_segsz >> 10);
}

/// An address, and the row it lies in; none for an address of a hole.
struct Question {
  std::uint32_t ip;
  std::optional<std::uint32_t> row;
};

/// Both ends of rows and the addresses around them: at the ends of the table, at those of pages,
/// and anywhere.
std::vector<Question> questionsAbout(const GeneratedTable& table) {
  std::set<std::uint32_t> rows{0, table.ranges() - 1};
  for (std::uint32_t i = kPage; i < table.ranges(); i += kPage) rows.insert({i - 1, i});
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) rows.insert(static_cast<std::uint32_t>(random() % table.ranges()));
  std::vector<Question> questions;
  for (const std::uint32_t i : rows) {
    const GeneratedTable::Row row = table.row(i);
    questions.push_back({row.start, i});
    questions.push_back({row.end, i});
    questions.push_back({row.end + 1, std::nullopt});
  }
  return questions;
}

/// As many ranges as wanted or, when nobody wants a number, as the memory that is free takes.
std::uint32_t wantedRanges() {
  constexpr long kFewest = 2 * long{kPage};
  const char* const text = std::getenv("TOLVAR_LARGE_TABLE_RANGES");
  if (text != nullptr) return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
  const long freeKib = procKib("/proc/meminfo", "MemAvailable") - kBesidesKib;
  return static_cast<std::uint32_t>(
      std::clamp(freeKib * 1024 / kNeededBytes, kFewest, long{kDefaultRanges}));
}

class LargeTable : public tolvar_test::ServeFixture {
 protected:
  struct Client {
    int exitStatus = -1;
    std::string out;
    std::string err;
    long peakKib = 0;
  };

  /// A client of `service` that answers what is in the file "questions" and leaves its image.
  Client runClient(const std::string& service) const {
    ChildProcess client({"/bin/sh", "-c",
                         "exec \"$0\" lookup --service \"$1\" --keys \"$2\" --json --timing "
                         "<\"$3/questions\" >\"$3/out\" 2>\"$3/err\"",
                         TOLVAR_TOOL, service, keyList(), directory.path()});
    const int status = client.awaitExit();
    return {status, tolvar_test::readFile(directory.file("out")),
            tolvar_test::readFile(directory.file("err")), client.peakKib()};
  }

  std::string keyList() const {
    return std::to_string(keys.data0()) + "," + std::to_string(keys.data1()) + "," +
           std::to_string(keys.size());
  }

  void expectAnswers(const Client& client) const {
    EXPECT_EQ(client.exitStatus, 1) << client.err;  // holes are not found
    std::istringstream lines(client.out);
    std::string line;
    for (const Question& question : questions) {
      ASSERT_TRUE(std::getline(lines, line)) << client.err;
      const auto answer = nlohmann::json::parse(line);
      ASSERT_EQ(answer.at("address"), dottedQuad(question.ip));
      ASSERT_EQ(answer.at("found"), question.row.has_value()) << line;
      if (!question.row) continue;
      const GeneratedTable::Row row = table.row(*question.row);
      EXPECT_EQ(answer.at("country").at("name"), row.country) << line;
      EXPECT_EQ(answer.at("province").at("name"), row.province) << line;
      EXPECT_EQ(answer.at("city").at("name"), row.city) << line;
      EXPECT_EQ(answer.at("oper").at("name"), row.oper) << line;
      EXPECT_EQ(answer.at("nettype").at("name"), row.nettype) << line;
    }
    EXPECT_FALSE(std::getline(lines, line)) << line;
  }

  /// Shows how much memory `what` took, and that it is not more than it may.
  void expectMemory(const char* what, long peakKib, long bytesOfRange, long sharedKib = 0) const {
    std::printf("%-14s %6ld MB", what, peakKib >> 10);
    if (sharedKib != 0) std::printf(", of it %ld MB shared at most", sharedKib >> 10);
    std::printf("\n");
    EXPECT_LT(peakKib - sharedKib, kBesidesKib + bytesOfRange * long{table.ranges()} / 1024)
        << what;
  }

  const GeneratedTable table{wantedRanges()};
  const std::vector<Question> questions = questionsAbout(table);
  const ShmKeys keys;
};

TEST_F(LargeTable, ReachesAClientAndFromItsImageTheNextInBoundedMemory) {
  std::printf("%u ranges\n", table.ranges());
  table.write(directory.file("table.csv"));
  std::string text;
  for (const Question& question : questions) text += dottedQuad(question.ip) + "\n";
  tolvar_test::writeFile(directory.file("questions"), text);

  ChildProcess import({TOLVARD, "import", directory.file("table.csv"), "--db", database()});
  ASSERT_EQ(import.awaitExit(), 0);
  std::string address;
  Client first;
  {
    const TolvardProcess service(database());
    address = service.address();
    first = runClient(address);
    expectMemory("import", import.peakKib(), kImportBytes);
    expectMemory("service", peakOfRunningKib(service.id()), kServiceBytes);
  }
  const long sharedKib = segmentKib(keys.data0()) + segmentKib(keys.data1());
  expectMemory("first client", first.peakKib, kClientBytes, sharedKib);
  EXPECT_THAT(first.err, HasSubstr(std::to_string(table.ranges()) + "   digest"));
  expectAnswers(first);

  // The service has ended, so what the next one answers from is the image.
  const Client next = runClient(address);
  expectMemory("next client", next.peakKib, kClientBytes + kNodeBytes);
  EXPECT_THAT(next.err, HasSubstr("download            none"));
  expectAnswers(next);
}

}  // namespace
