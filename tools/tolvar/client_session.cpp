#include "tools/tolvar/client_session.h"

#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include "platform/exception.h"
#include "tools/tolvar/wait_notice.h"

namespace tolvar::tools {
namespace {

constexpr auto kSettleLimit = std::chrono::seconds(30);
constexpr auto kSettleRound = std::chrono::milliseconds(2);

/// A client on a clock of the tool's.
class TimedClient final : public TolvarAPI {
 public:
  explicit TimedClient(qel::Clock& clock) : TolvarAPI(clock) {}
  ~TimedClient() override { stopUpdateThread(); }
};

}  // namespace

void ClientSession::prepare(const PrivateRun& run, const std::string& logPath, qel::Clock& clock) {
  _options.comm = &communicator();
  _options.ip_servant = kMainObject;
  _options.fast_ip_servant = kFastObject;
  _options.shm_key_1 = run.keys()[0];
  _options.shm_key_2 = run.keys()[1];
  _options.shm_key_3 = run.keys()[2];
  _options.log_path = logPath;
  _api = std::make_unique<TimedClient>(clock);
}

void ClientSession::start(const PrivateRun& run, const std::string& logPath) {
  prepare(run, logPath, qel::systemClock());
  if (!initializeAudibly())
    throw qel::ZU_Exception("the client did not come up: " + _api->status().lastError);
  awaitSettled();
  checkAnswers();
}

bool ClientSession::initializeAudibly() {
  const std::string service = serviceName();
  std::optional<WaitNotice> notice;
  if (!service.empty()) {
    notice.emplace(
        service, [this] { return _api->status().lastError; },
        [](const std::string& line) { std::fprintf(stderr, "tolvar: %s\n", line.c_str()); },
        qel::systemClock());
  }
  return initialize();
}

void ClientSession::awaitSettled() {
  const auto limit = std::chrono::steady_clock::now() + kSettleLimit;
  while (!settled(_api->status())) {
    if (std::chrono::steady_clock::now() > limit)
      throw qel::ZU_Exception("the client did not take the table over: " +
                              _api->status().lastError);
    std::this_thread::sleep_for(kSettleRound);
  }
}

}  // namespace tolvar::tools
