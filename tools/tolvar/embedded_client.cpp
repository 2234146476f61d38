#include "tools/tolvar/embedded_client.h"

#include <chrono>
#include <thread>

namespace tolvar::tools {
namespace {

constexpr auto kTakeOverLimit = std::chrono::seconds(30);
constexpr auto kTakeOverRound = std::chrono::milliseconds(2);

}  // namespace

EmbeddedClient::EmbeddedClient(const std::string& tablePath, const std::string& codesPath)
    : _service(std::make_shared<service::LookupService>()), _communicator(_service) {
  const std::int64_t begin = qel::systemClock().steadyMillis();
  service::ImportOptions options;
  if (!codesPath.empty()) options.isoCountriesPath = codesPath;
  service::ImportResult imported = service::importTable(tablePath, options);
  _warnings = std::move(imported.warnings);
  _table = _service->publish(std::move(imported.table));
  _importMillis = qel::systemClock().steadyMillis() - begin;
}

void EmbeddedClient::start(const PrivateRun& run, const std::string& logPath) {
  _api = std::make_unique<TolvarAPI>();
  TolvarAPIOptions options;
  options.comm = &_communicator;
  options.ip_servant = "Tolvar.LookupServer.TolvarObj@tcp";
  options.fast_ip_servant = "Tolvar.LookupServer.FTolvarObj@tcp";
  options.shm_key_1 = run.keys()[0];
  options.shm_key_2 = run.keys()[1];
  options.shm_key_3 = run.keys()[2];
  options.log_path = logPath;
  if (!_api->initialize(options)) {
    const std::string reason = _api->status().lastError;
    throw qel::ZU_Exception("the client did not come up: " +
                            (reason.empty() ? "no table within 30 seconds" : reason));
  }
  awaitTable();
}

void EmbeddedClient::awaitTable() {
  // Keys that were given may hold the image of another table; the update thread replaces it. A
  // table that answers already may still be on its way into the second segment.
  const auto settled = [this] {
    const TolvarStatus status = _api->status();
    return status.digest == _table->digest() && (status.publications > 0 || status.fromImage);
  };
  const auto limit = std::chrono::steady_clock::now() + kTakeOverLimit;
  while (!settled()) {
    if (std::chrono::steady_clock::now() > limit) {
      throw qel::ZU_Exception("the client did not take the table over: " +
                              _api->status().lastError);
    }
    std::this_thread::sleep_for(kTakeOverRound);
  }
}

}  // namespace tolvar::tools
