#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>

#include "bench/support/shifted_clock.h"
#include "include/TolvarAPI.h"
#include "service/lookup_service.h"
#include "transport/in_process_communicator.h"

namespace tolvar_bench {

/// Whether the service asks clients for statistics.
enum class Reports { Off, On };

/// Name that tables of the benchmarks have for an id of a code type: 0 country, 1 province, 2 city,
/// 3 district, 4 extend, 5 oper, 6 nettype, 7 apn.
std::string nameOf(int type, std::uint64_t id);

/// A client as a host runs it, with what `initialize` needs from a host.
class Client {
 public:
  /// Starts a client on the keys and waits until it is ready; its log goes below the working
  /// directory. Throws qel::ZU_Exception when it does not come up.
  Client(qel::Communicator& communicator, const std::array<key_t, 3>& keys);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  TolvarAPI& api() noexcept;

  /// Lets the client look for a newer table now and waits until it has published `ranges` ranges
  /// with this digest into both segments. Throws qel::ZU_Exception after two minutes.
  void takeOver(const std::string& digest);

 private:
  class Clocked;

  void awaitPublication(const std::function<bool(const TolvarStatus&)>& done);

  ShiftedClock _clock;
  std::unique_ptr<Clocked> _api;
};

/// The lookup service in this process, with the benchmarks' table.
class Service {
 public:
  Service();

  /// Makes `ranges`, with a name for every id in them, the current table; answers its digest.
  std::string publish(ravel::vIPProperty ranges);

  /// What clients are told that start from now on.
  void setReports(Reports reports);

  qel::Communicator& communicator() noexcept { return _communicator; }

  /// What a transport serves.
  const std::shared_ptr<tolvar::service::LookupService>& lookups() noexcept { return _service; }

 private:
  std::shared_ptr<tolvar::service::LookupService> _service;
  tolvar::InProcessCommunicator _communicator;
};

}  // namespace tolvar_bench
