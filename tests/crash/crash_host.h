#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tests/src/update/table_server.h"
#include "tests/support/client_test_access.h"
#include "tests/support/fake_service.h"
#include "tests/support/manual_clock.h"
#include "tests/support/shm_keys.h"

namespace tolvar_test {

/// A version of all tables: what is in it follows from these numbers.
struct Version {
  std::uint32_t number = 1;
  std::size_t rows = 6;
  std::size_t cities = 2;  ///< entries of code table 2, next to one each in three others
};

/// Self-checking rows, and code tables in which every name begins with "vNUMBER ".
Table tableOf(const Version& version);

/// One process of the host: a client and the service that it sees.
struct CrashHost {
  explicit CrashHost(const ShmKeys& imageKeys);

  /// Attaches, as `initialize` does.
  void start();

  /// Follows the service to `version`, both tables. Throws std::runtime_error when that fails.
  void publish(const Version& version);
  /// Its names only.
  void publishNames(const Version& version);

  bool ready() { return access.hasInitialized() == 3; }

  const ShmKeys& keys;
  std::shared_ptr<FakeService> service = std::make_shared<FakeService>();
  TableServer server{service, 4};
  ManualClock clock{true};
  ClockedClient client{clock};
  tolvar::ClientTestAccess access{client};

 private:
  void finish();
};

}  // namespace tolvar_test
