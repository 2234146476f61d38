#include "tools/tolvar/watch_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <optional>

#include "platform/exception.h"
#include "tools/tolvar/client_keeper.h"
#include "tools/tolvar/client_session.h"
#include "tools/tolvar/paced_clock.h"
#include "tools/tolvar/status_line.h"

namespace tolvar::tools {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLookEvery{200};
constexpr std::size_t kShortestDigest = 8;
constexpr std::size_t kWholeDigest = 32;
constexpr double kMostSeconds = 1e9;

/// In lower case; anything but hexadecimal digits, enough of them, is refused.
std::string digestIn(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const bool isHex = text.find_first_not_of("0123456789abcdef") == std::string::npos;
  if (!isHex || text.size() < kShortestDigest || text.size() > kWholeDigest)
    throw CLI::ValidationError("--until-digest",
                               "\"" + text +
                                   "\" is no digest: expected 32 hexadecimal digits, or the first "
                                   "8 or more of them, as `tolvard versions` shows them");
  return text;
}

/// Writes the state of a client whenever it has changed.
class StatusPrinter {
 public:
  explicit StatusPrinter(bool json) : _json(json) {}

  /// False when standard output takes no more.
  bool show(const TolvarStatus& status) {
    if (_shown && !showsChange(*_shown, status)) return true;
    _shown = status;
    const timeval now = qel::systemClock().timeOfDay();
    const std::string line = (_json ? statusJson(status, now) : statusLine(status, now)) + "\n";
    return std::fwrite(line.data(), 1, line.size(), stdout) == line.size() &&
           std::fflush(stdout) == 0;
  }

 private:
  const bool _json;
  std::optional<TolvarStatus> _shown;
};

steady_clock::time_point endAfter(double seconds) {
  if (seconds == 0) return steady_clock::time_point::max();
  return steady_clock::now() +
         std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(seconds));
}

std::chrono::milliseconds untilNextLook(steady_clock::time_point end) {
  const auto left = end - steady_clock::now();
  if (left >= kLookEvery) return kLookEvery;
  // Rounded up, or the last moment would be spent looking.
  return std::chrono::ceil<std::chrono::milliseconds>(std::max(left, steady_clock::duration(0)));
}

}  // namespace

void WatchCommand::declare(CLI::App& app) {
  client.declareService(app)->required();
  client.declareHost(app);
  app.add_flag("--json", json, "Print one JSON object a line");
  app.add_option_function<std::string>(
         "--until-digest", [this](const std::string& text) { untilDigest = digestIn(text); },
         "End with status 0 as soon as the table with this digest, or one that begins so, answers; "
         "with 1 when the watch ends before")
      ->type_name("DIGEST");
  app.add_option("--for", forSeconds, "End after this time (default: at a signal)")
      ->check(CLI::Range(0.001, kMostSeconds))
      ->type_name("SECONDS");
  // For tests and demonstrations: once the client is up, its time runs this many times faster, and
  // its change checks come so much sooner. Not for daily use, hence not in the help.
  app.add_option("--time-scale", timeScale)->check(CLI::Range(1, 10000))->group("");
}

ExitStatus WatchCommand::run() const {
  const ExitStatus inVain = untilDigest.empty() ? kExitDone : kExitNo;
  const auto end = endAfter(forSeconds);
  const ClientOptions options = client.resolved();
  const std::unique_ptr<PrivateRun> host = options.makeRun();
  host->endBySelf(inVain);
  PacedClock clock;
  const std::unique_ptr<ClientSession> session = makeRemoteClient(options.service);
  session->prepare(*host, options.logPathIn(*host), clock);
  const ClientKeeper keeper(*session, clock, timeScale);
  StatusPrinter printer(json);
  do {
    const TolvarStatus status = session->api().status();
    const bool isShown = printer.show(status);
    if (!untilDigest.empty() && answersFrom(status, untilDigest)) return kExitDone;
    if (!isShown && untilDigest.empty()) return kExitDone;
    if (const std::string failure = keeper.failure(); !failure.empty())
      throw qel::ZU_Exception("the client did not come up: " + failure);
  } while (steady_clock::now() < end && !host->awaitSignal(untilNextLook(end)));
  return inVain;
}

}  // namespace tolvar::tools
