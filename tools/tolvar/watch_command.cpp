#include "tools/tolvar/watch_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <chrono>
#include <optional>

#include "platform/exception.h"
#include "service/address_text.h"
#include "service/text_source.h"
#include "tools/shared/standard_output.h"
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
constexpr double kLeastSeconds = 0.001;
constexpr double kMostSeconds = 1e9;
constexpr std::uint32_t kMostScale = 10000;

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

double secondsIn(const std::string& text) {
  double seconds = 0;
  // Put so that what is no number, which compares with nothing, is refused as well.
  if (!CLI::detail::lexical_cast(text, seconds) ||
      !(seconds >= kLeastSeconds && seconds <= kMostSeconds))
    throw CLI::ValidationError(
        "--for", service::quoted(text) + " is no time: expected seconds, from 0.001 to 1000000000");
  return seconds;
}

int scaleIn(const std::string& text) {
  const auto scale = service::parseNumber(text, kMostScale);
  if (!scale || *scale == 0)
    throw CLI::ValidationError("--time-scale",
                               service::quoted(text) + " is no scale: expected 1 to 10000");
  return static_cast<int>(*scale);
}

/// Writes the state of a client whenever it has changed.
class StatusPrinter {
 public:
  explicit StatusPrinter(bool json) : _json(json) {}

  /// False when nobody reads standard output any more. Throws OutputLost when it takes no more for
  /// another reason.
  bool show(const TolvarStatus& status) {
    if (_shown && !showsChange(*_shown, status)) return true;
    _shown = status;
    const timeval now = qel::systemClock().timeOfDay();
    try {
      print((_json ? statusJson(status, now) : statusLine(status, now)) + "\n");
    } catch (const OutputLost& lost) {
      if (!lost.readerLeft()) throw;
      return false;
    }
    return true;
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
  app.add_option_function<std::string>(
         "--for", [this](const std::string& text) { forSeconds = secondsIn(text); },
         "End after this time (default: at a signal)")
      ->type_name("SECONDS");
  // For tests and demonstrations: once the client is up, its time runs this many times faster, and
  // its change checks come so much sooner. Not for daily use, hence not in the help.
  app.add_option_function<std::string>(
         "--time-scale", [this](const std::string& text) { timeScale = scaleIn(text); })
      ->group("");
  app.footer(
      "Exit status: 0 it ended as it was told to, 1 a digest was waited for and did not come, 2 no "
      "client could run or a line could not be written.");
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
    if (!isShown) return inVain;
    if (const std::string failure = keeper.failure(); !failure.empty())
      throw qel::ZU_Exception("the client did not come up: " + failure);
  } while (steady_clock::now() < end && !host->awaitSignal(untilNextLook(end)));
  return inVain;
}

}  // namespace tolvar::tools
