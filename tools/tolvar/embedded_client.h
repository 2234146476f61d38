#pragma once

#include "service/importer.h"
#include "service/lookup_service.h"
#include "tools/tolvar/client_session.h"
#include "transport/in_process_communicator.h"

namespace tolvar::tools {

/// A client with its service in the same process.
class EmbeddedClient : public ClientSession {
 public:
  /// Imports the table and starts nothing yet. Throws service::ImportError.
  EmbeddedClient(const std::string& tablePath, const std::string& codesPath);
  ~EmbeddedClient() override { endClient(); }

  std::vector<service::ImportNote> warnings() const override { return _warnings; }
  std::int64_t importMillis() const override { return _importMillis; }

 private:
  qel::Communicator& communicator() override { return _communicator; }
  bool settled(const TolvarStatus& status) const override;

  std::vector<service::ImportNote> _warnings;
  std::int64_t _importMillis = 0;
  std::shared_ptr<service::LookupService> _service;
  std::shared_ptr<const service::TableVersion> _table;
  InProcessCommunicator _communicator;
};

}  // namespace tolvar::tools
