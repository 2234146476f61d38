#include "tools/tolvar/lookup_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>

#include "platform/exception.h"
#include "platform/toolkit.h"
#include "tools/shared/standard_output.h"
#include "tools/tolvar/answer_format.h"
#include "tools/tolvar/embedded_client.h"
#include "tools/tolvar/line_reader.h"

namespace tolvar::tools {
namespace {

/// More warnings than this are summed up.
constexpr std::size_t kShownWarnings = 10;
constexpr std::size_t kTimedLookups = 1000000;

void printWarnings(const std::vector<service::ImportNote>& warnings) {
  for (std::size_t i = 0; i < warnings.size() && i < kShownWarnings; ++i)
    std::fprintf(stderr, "warning: %s\n", warnings[i].text().c_str());
  if (warnings.size() > kShownWarnings)
    std::fprintf(stderr, "warning: and %zu more\n", warnings.size() - kShownWarnings);
}

Answer answerOf(TolvarAPI& api, const std::string& text) {
  Answer answer;
  answer.text = text;
  if (!Toolkit::parseIPv4(text, &answer.ip)) return answer;
  const bool found =
      api.getIPInfo(answer.ip, &answer.ids) && api.getIPInfo(answer.ip, &answer.names);
  answer.kind = found ? Answer::Kind::Found : Answer::Kind::NotFound;
  return answer;
}

std::string withoutBlanks(const std::string& line) {
  constexpr const char* kBlanks = " \t\r";
  const auto begin = line.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return {};
  return line.substr(begin, line.find_last_not_of(kBlanks) - begin + 1);
}

/// Nanoseconds that one numeric lookup takes on average, over random addresses of the whole space.
double nanosPerLookup(TolvarAPI& api, std::size_t* found) {
  std::mt19937 random(20);
  std::vector<std::uint32_t> addresses(kTimedLookups);
  for (std::uint32_t& address : addresses) address = static_cast<std::uint32_t>(random());
  ravel::IPInfo info;
  *found = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (const std::uint32_t address : addresses) *found += api.getIPInfo(address, &info) ? 1 : 0;
  const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - begin;
  return took.count() / static_cast<double>(addresses.size());
}

void printTiming(ClientSession& client) {
  const TolvarStatus status = client.api().status();
  const auto millis = [](std::int64_t value) { return static_cast<long long>(value); };
  std::size_t found = 0;
  const double nanos = nanosPerLookup(client.api(), &found);
  std::fprintf(stderr,
               "\n"
               "ranges        %10zu   digest %s\n"
               "code entries  %10zu\n",
               status.ranges, status.digest.c_str(), status.codeEntries);
  if (client.importMillis() >= 0)
    std::fprintf(stderr, "import        %10lld ms\n", millis(client.importMillis()));
  if (status.publications > 0) {
    std::fprintf(stderr,
                 "download      %10lld ms   (check to last page)\n"
                 "publication   %10lld ms   (both shared-memory segments)\n",
                 millis(status.downloadMillis), millis(status.publishMillis));
  } else {
    std::fprintf(stderr, "download            none      (a complete image was in shared memory)\n");
  }
  std::fprintf(stderr,
               "one lookup    %10.1f ns   (numeric, mean of %zu random addresses, %.0f %% found)\n",
               nanos, kTimedLookups,
               100.0 * static_cast<double>(found) / static_cast<double>(kTimedLookups));
}

std::string absolute(const std::string& path) {
  return path.empty() ? path : std::filesystem::absolute(path).string();
}

/// Writes answers as they come and remembers what became of them. Throws OutputLost.
class Printer {
 public:
  Printer(TolvarAPI& api, bool json) : _api(api), _json(json) {}

  void answer(const std::string& text) { write(answerOf(_api, text)); }

  void refuseLine(std::uint64_t number) {
    Answer answer;
    answer.problem = "line " + std::to_string(number) + " is longer than " +
                     std::to_string(LineReader::kMaxBytes) + " bytes and is no IPv4 address";
    write(answer);
  }

  bool allFound() const { return _allFound; }

 private:
  void write(const Answer& answer) {
    if (answer.kind != Answer::Kind::Found) _allFound = false;
    writeOutput((_json ? formatJson(answer) : formatLine(answer)) + "\n");
  }

  TolvarAPI& _api;
  bool _json;
  bool _allFound = true;
};

void answerLine(const LineReader& line, Printer* printer) {
  const std::string text = withoutBlanks(line.text());
  if (text.starts_with('#')) return;
  if (line.isLonger()) {
    printer->refuseLine(line.number());
  } else if (!text.empty()) {
    printer->answer(text);
  }
}

void answerInput(Printer* printer) {
  // Somebody typing wants the answer to each line at once; a pipe wants throughput.
  const bool prompt = isatty(STDIN_FILENO) != 0;
  LineReader lines(std::cin);
  while (lines.next()) {
    answerLine(lines, printer);
    if (prompt) flushOutput();
  }
}

}  // namespace

void LookupCommand::declare(CLI::App& app) {
  app.add_option("--table", tablePath,
                 "The table: CSV with a header, or start,end,country code with '#' comments")
      ->type_name("FILE");
  client.declareService(app)->excludes("--table");
  app.add_option("--codes", codesPath,
                 "Country names and numbers, the JSON file of the package iso-codes "
                 "(default: /usr/share/iso-codes/json/iso_3166-1.json)")
      ->type_name("FILE");
  client.declareHost(app);
  app.add_flag("--json", json, "Print one JSON object a line");
  app.add_flag("--timing", timing, "Say on standard error how long everything took");
  app.add_option("ADDRESS", addresses,
                 "IPv4 addresses; without any they are read from standard input, one a line");
  app.footer(
      "Exit status: 0 every address was found, 1 at least one was not or is no address, 2 nothing "
      "could be looked up or not all answers could be written.");
}

ExitStatus LookupCommand::run() const {
  if (addresses.empty() && isatty(STDIN_FILENO) != 0)
    std::fprintf(stderr, "reading addresses from standard input, one a line; end with Ctrl-D\n");
  if (tablePath.empty() && client.service.endpoints.empty())
    throw qel::ZU_Exception("name a table with --table FILE or a service with --service HOST:PORT");
  // The run moves to a directory of its own, so relative paths are resolved first.
  const ClientOptions options = client.resolved();
  const std::string table = absolute(tablePath);
  const std::string codes = absolute(codesPath);

  const std::unique_ptr<PrivateRun> run = options.makeRun();
  const std::unique_ptr<ClientSession> session =
      table.empty() ? makeRemoteClient(options.service)
                    : std::make_unique<EmbeddedClient>(table, codes);
  printWarnings(session->warnings());
  session->start(*run, options.logPathIn(*run));

  Printer printer(session->api(), json);
  try {
    if (addresses.empty()) answerInput(&printer);
    for (const std::string& text : addresses) printer.answer(text);
    flushOutput();
  } catch (const OutputLost& lost) {
    if (!lost.readerLeft()) throw;
  }
  if (timing) printTiming(*session);
  return printer.allFound() ? kExitDone : kExitNo;
}

}  // namespace tolvar::tools
