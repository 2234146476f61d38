#pragma once

#include "service/importer.h"
#include "service/lookup_service.h"
#include "tools/tolvar/client_session.h"
#include "transport/in_process_communicator.h"

namespace tolvar::tools {

/// True when a client answers with the ranges and with the names of the table `digest`. Both come
/// one after the other, in either order, and what answers already may still be on its way into the
/// second segment.
bool hasTakenOver(const TolvarStatus& status, const std::string& digest);

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

  /// Clients tell tables by their ranges, ids included: an image that another table left may have
  /// the same ones, and stays with its own names.
  void checkAnswers() override;

  std::vector<service::ImportNote> _warnings;
  std::int64_t _importMillis = 0;
  std::shared_ptr<service::LookupService> _service;
  std::shared_ptr<const service::TableVersion> _table;
  InProcessCommunicator _communicator;
};

}  // namespace tolvar::tools
