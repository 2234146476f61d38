#include "bench/support/host.h"

#include <chrono>
#include <set>
#include <thread>
#include <utility>

#include "platform/exception.h"
#include "src/index/tuple_numbers.h"

namespace tolvar_bench {
namespace {

constexpr std::int64_t kCheckSeconds = 600;
constexpr auto kTakeOverLimit = std::chrono::minutes(2);
constexpr auto kRound = std::chrono::milliseconds(2);

std::vector<ravel::CodeInfo> codesOf(const ravel::vIPProperty& ranges) {
  const tolvar::TupleNumbers tuples(ranges);
  std::set<std::pair<int, std::uint64_t>> ids;
  for (std::uint32_t number = 1; number < tuples.count(); ++number) {
    const ravel::IPInfo info = tuples.info(number);
    const std::array<std::uint64_t, 8> all = {
        info.country, info.province, info.city,    static_cast<std::uint64_t>(info.district),
        info.extend,  info.oper,     info.nettype, info.apn};
    for (int type = 0; type < 8; ++type) ids.emplace(type, all[static_cast<std::size_t>(type)]);
  }
  std::vector<ravel::CodeInfo> codes;
  for (const auto& [type, id] : ids) {
    ravel::CodeInfo& code = codes.emplace_back();
    code.codeType = type + 1;
    code.ID = static_cast<std::int64_t>(id);
    code.content = nameOf(type, id);
  }
  return codes;
}

}  // namespace

std::string nameOf(int type, std::uint64_t id) {
  return "name " + std::to_string(type) + " of " + std::to_string(id);
}

class Client::Clocked : public TolvarAPI {
 public:
  explicit Clocked(qel::Clock& clock) : TolvarAPI(clock) {}
  ~Clocked() override { stopUpdateThread(); }
};

Client::Client(qel::Communicator& communicator, const std::array<key_t, 3>& keys)
    : _api(std::make_unique<Clocked>(_clock)) {
  TolvarAPIOptions options;
  options.comm = &communicator;
  options.ip_servant = "Bench.LookupServer.TolvarObj@tcp";
  options.fast_ip_servant = "Bench.LookupServer.FTolvarObj@tcp";
  options.shm_key_1 = keys[0];
  options.shm_key_2 = keys[1];
  options.shm_key_3 = keys[2];
  options.log_path = "log";
  if (!_api->initialize(options))
    throw qel::ZU_Exception("the client did not come up: " + _api->status().lastError);
  awaitPublication([](const TolvarStatus& s) { return s.fromImage || s.publications > 0; });
}

Client::~Client() = default;

void Client::takeOver(const std::string& digest) {
  const std::uint64_t before = _api->status().publications;
  _clock.advance(kCheckSeconds + 1);
  awaitPublication(
      [&](const TolvarStatus& s) { return s.digest == digest && s.publications > before; });
}

void Client::awaitPublication(const std::function<bool(const TolvarStatus&)>& done) {
  const auto limit = std::chrono::steady_clock::now() + kTakeOverLimit;
  while (!done(_api->status())) {
    if (std::chrono::steady_clock::now() > limit)
      throw qel::ZU_Exception("the client published nothing: " + _api->status().lastError);
    std::this_thread::sleep_for(kRound);
  }
}

TolvarAPI& Client::api() noexcept { return *_api; }

Service::Service()
    : _service(std::make_shared<tolvar::service::LookupService>()), _communicator(_service) {}

std::string Service::publish(ravel::vIPProperty ranges) {
  tolvar::service::TableData data;
  data.codes = codesOf(ranges);
  data.ranges = std::move(ranges);
  return _service->publish(std::move(data))->digest();
}

void Service::setReports(Reports reports) {
  ravel::ClientConf conf = _service->getConf();
  conf.statisOpen = reports == Reports::On;
  _service->setConf(conf);
}

}  // namespace tolvar_bench
