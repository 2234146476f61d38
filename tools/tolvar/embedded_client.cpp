#include "tools/tolvar/embedded_client.h"

#include "include/memVector.h"
#include "platform/exception.h"
#include "service/csv_exporter.h"
#include "service/text_source.h"

namespace tolvar::tools {
namespace {

/// A longer name is in no image.
bool fitsAnImage(const ravel::CodeInfo& code) {
  ravel::VekOutputStream<ravel::BufferWriter> encoded;
  code.writeTo(encoded);
  return MemNode::fits(encoded);
}

/// The client's name for the entry's id.
std::string nameIn(TolvarAPI& api, const ravel::CodeInfo& code) {
  std::string name;
  const auto id = static_cast<std::uint32_t>(code.ID);
  switch (code.codeType) {
    case 1: api.getCountryByID(id, &name); break;
    case 2: api.getProvinceByID(id, &name); break;
    case 3: api.getCityByID(id, &name); break;
    case 4: api.getDistrictByID(static_cast<std::uint64_t>(code.ID), &name); break;
    case 5: api.getExtendByID(id, &name); break;
    case 6: api.getOperByID(id, &name); break;
    case 7: api.getNettypeByID(id, &name); break;
    case 8: api.getApnByID(id, &name); break;
    default: break;
  }
  return name;
}

}  // namespace

EmbeddedClient::EmbeddedClient(const std::string& tablePath, const std::string& codesPath)
    : _service(std::make_shared<service::LookupService>()), _communicator(_service) {
  const std::int64_t begin = qel::systemClock().steadyMillis();
  service::ImportOptions options;
  if (!codesPath.empty()) options.isoCountriesPath = codesPath;
  const auto source = service::TextSource::load(tablePath, service::kMaxImportBytes);
  options.ids = service::exportedIds(source);
  service::ImportResult imported = service::importTable(source, options);
  _warnings = std::move(imported.warnings);
  _table = _service->publish(std::move(imported.table));
  _importMillis = qel::systemClock().steadyMillis() - begin;
}

bool hasTakenOver(const TolvarStatus& status, const std::string& digest) {
  if (status.digest != digest) return false;
  // Of a table that was there from the start nothing comes.
  return status.imageDigest == digest || (status.publications > 0 && status.codePublications > 0);
}

bool EmbeddedClient::settled(const TolvarStatus& status) const {
  // Keys that were given may hold the image of another table; the update thread replaces it.
  return hasTakenOver(status, _table->digest());
}

void EmbeddedClient::checkAnswers() {
  if (api().status().codePublications > 0) return;
  for (const ravel::CodeInfo& code : _table->codes()) {
    if (!fitsAnImage(code)) continue;
    const std::string name = nameIn(api(), code);
    if (name != code.content)
      throw qel::ZU_Exception("the image behind --keys has the same ranges with other names (" +
                              service::quoted(name) + " instead of " +
                              service::quoted(code.content) +
                              "), which stay; remove it with `tolvar shm rm --keys ...`, or name "
                              "other keys");
  }
}

}  // namespace tolvar::tools
