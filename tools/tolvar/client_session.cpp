#include "tools/tolvar/client_session.h"

#include <chrono>
#include <thread>

#include "platform/exception.h"

namespace tolvar::tools {
namespace {

constexpr auto kSettleLimit = std::chrono::seconds(30);
constexpr auto kSettleRound = std::chrono::milliseconds(2);

}  // namespace

void ClientSession::start(const PrivateRun& run, const std::string& logPath) {
  _api = std::make_unique<TolvarAPI>();
  TolvarAPIOptions options;
  options.comm = &communicator();
  options.ip_servant = kMainObject;
  options.fast_ip_servant = kFastObject;
  options.shm_key_1 = run.keys()[0];
  options.shm_key_2 = run.keys()[1];
  options.shm_key_3 = run.keys()[2];
  options.log_path = logPath;
  if (!_api->initialize(options)) {
    const std::string reason = _api->status().lastError;
    throw qel::ZU_Exception("the client did not come up: " +
                            (reason.empty() ? "no table within 30 seconds" : reason));
  }
  awaitSettled();
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
