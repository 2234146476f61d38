#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "include/TolvarAPI.h"
#include "service/importer.h"
#include "service/lookup_service.h"
#include "tools/tolvar/private_run.h"
#include "transport/in_process_communicator.h"

namespace tolvar::tools {

/// A client with its service in the same process. Used by one thread, but for lookups.
class EmbeddedClient {
 public:
  /// Imports the table and starts nothing yet. Throws service::ImportError.
  EmbeddedClient(const std::string& tablePath, const std::string& codesPath);

  /// Starts the client and waits until it answers from the imported table. Log files go below
  /// `logPath`. Throws qel::ZU_Exception with the reason when it does not come up.
  void start(const PrivateRun& run, const std::string& logPath);

  TolvarAPI& api() noexcept { return *_api; }
  const service::TableVersion& table() const noexcept { return *_table; }
  const std::vector<service::ImportNote>& warnings() const noexcept { return _warnings; }
  std::int64_t importMillis() const noexcept { return _importMillis; }

 private:
  void awaitTable();

  std::vector<service::ImportNote> _warnings;
  std::int64_t _importMillis = 0;
  std::shared_ptr<service::LookupService> _service;
  std::shared_ptr<const service::TableVersion> _table;
  InProcessCommunicator _communicator;
  std::unique_ptr<TolvarAPI> _api;
};

}  // namespace tolvar::tools
