#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/faults/host_clock.h"
#include "tests/src/update/table_server.h"
#include "tests/support/client_test_access.h"
#include "tests/support/fake_service.h"
#include "tests/support/shm_keys.h"

namespace tolvar_test {

/// What goes wrong in a life.
class FaultSource {
 public:
  virtual ~FaultSource() = default;
  /// The life begins.
  virtual void begin() {}
  /// Something has failed.
  virtual bool fired() const = 0;
  /// Nothing fails from here on.
  virtual void heal() = 0;
  /// Whether faults that are counted by thread also happen on the calling one, which is about to
  /// call the client (true) or has come back from it (false).
  virtual void enterClient(bool) {}
};

/// One life of a host process on an injected clock, in the working directory: a client starts,
/// downloads a table, answers, gets two more versions that are larger and smaller, and is
/// destroyed; another starts from the image while the service is down. All of it on the keys given,
/// with a log under the working directory.
///
/// Whatever fails on the way: answers are whole and of one version, versions never go back, every
/// step succeeds once nothing fails any more, and nothing is left behind but the image.
class HostLife {
 public:
  HostLife(const ShmKeys& keys, FaultSource& faults) : _keys(keys), _faults(faults) {}

  /// What went against that, one line each; empty when nothing did.
  std::string live();

  static constexpr const char* kLogFile = "Tolvar/API/Tolvar.API.log";

 private:
  using Client = ClockedClient;

  TolvarAPIOptions options();
  bool initialize(Client& client);
  void start(Client& client);
  void reach(Client& client, std::uint32_t version);
  bool holds(Client& client, std::uint32_t version);
  void checkAnswers(Client& client, const char* when);
  void checkNames(Client& client, const char* when);
  void destroy(std::unique_ptr<Client> client);
  void restart(bool healed);
  void complain(const std::string& what);

  const ShmKeys& _keys;
  FaultSource& _faults;
  HostClock _clock;
  std::shared_ptr<FakeService> _service = std::make_shared<FakeService>();
  FakeCommunicator _communicator{_service};
  TableServer _server{_service, 10};
  std::uint32_t _seen = 0;  ///< the version that answered last
  std::string _problems;
};

/// What a process has of the system, apart from its memory.
struct Holdings {
  std::size_t descriptors;
  std::size_t mappings;  ///< of segments and of the position file
  std::size_t threads;
  std::size_t strays;  ///< segments made by this process behind other keys than the given ones

  static Holdings now(const ShmKeys& keys);
  std::string moreThan(const Holdings& before) const;
};

}  // namespace tolvar_test
