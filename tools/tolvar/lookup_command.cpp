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
#include "tools/tolvar/answer_format.h"
#include "tools/tolvar/embedded_client.h"

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

/// Without the blanks around it; empty for an empty line or a comment.
std::string addressIn(const std::string& line) {
  const auto begin = line.find_first_not_of(" \t\r");
  if (begin == std::string::npos || line[begin] == '#') return {};
  return line.substr(begin, line.find_last_not_of(" \t\r") - begin + 1);
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

/// Writes answers as they come and remembers what became of them.
class Printer {
 public:
  Printer(TolvarAPI& api, bool json) : _api(api), _json(json) {}

  /// False when standard output takes no more.
  bool answer(const std::string& text) {
    const Answer answer = answerOf(_api, text);
    if (answer.kind != Answer::Kind::Found) _allFound = false;
    const std::string line = (_json ? formatJson(answer) : formatLine(answer)) + "\n";
    return std::fwrite(line.data(), 1, line.size(), stdout) == line.size();
  }

  bool allFound() const { return _allFound; }

 private:
  TolvarAPI& _api;
  bool _json;
  bool _allFound = true;
};

void answerInput(Printer* printer) {
  // Somebody typing wants the answer to each line at once; a pipe wants throughput.
  const bool prompt = isatty(STDIN_FILENO) != 0;
  std::string line;
  while (std::getline(std::cin, line)) {
    const std::string address = addressIn(line);
    if (address.empty()) continue;
    if (!printer->answer(address)) return;
    if (prompt) std::fflush(stdout);
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
  if (addresses.empty()) {
    answerInput(&printer);
  } else {
    for (const std::string& text : addresses)
      if (!printer.answer(text)) break;
  }
  std::fflush(stdout);
  if (timing) printTiming(*session);
  return printer.allFound() ? kExitDone : kExitNo;
}

}  // namespace tolvar::tools
