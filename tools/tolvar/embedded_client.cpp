#include "tools/tolvar/embedded_client.h"

namespace tolvar::tools {

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

bool EmbeddedClient::settled(const TolvarStatus& status) const {
  // Keys that were given may hold the image of another table; the update thread replaces it. A
  // table that answers already may still be on its way into the second segment.
  return status.digest == _table->digest() && (status.publications > 0 || status.fromImage);
}

}  // namespace tolvar::tools
