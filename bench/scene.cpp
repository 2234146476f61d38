#include <utility>

#include "bench/cases.h"
#include "bench/support/queries.h"

namespace tolvar_bench {
namespace {

std::unique_ptr<MmdbTable> mmdbOf(const ravel::vIPProperty& table, const std::string& directory) {
  const std::string path = directory + "/table.mmdb";
  writeMmdb(path, table, [](int type, std::uint32_t id) { return nameOf(type, id); });
  auto mmdb = std::make_unique<MmdbTable>(path);
  std::filesystem::remove(path);  // it stays mapped
  return mmdb;
}

}  // namespace

Scene::Scene(ravel::vIPProperty ranges)
    : _table(std::move(ranges)),
      _index(tolvar::RangeIndex::build(_table)),
      _lowerBound(_table),
      _limit(_index.leafLineCount(), static_cast<std::uint32_t>(_index.tupleCount())),
      _mmdb(mmdbOf(_table, _run.directory())) {
  _service.publish(_table);
  _client = std::make_unique<Client>(_service.communicator(), _run.keys());
  checkAnswers(uniformQueries(100000, 9));
  checkAnswers(queriesOverRanges(_table, 100000, 9));
}

TolvarAPI& Scene::reportingApi() {
  if (!_reporting) {
    _service.setReports(Reports::On);
    _reporting = std::make_unique<Client>(_service.communicator(), _run.keys());
    _service.setReports(Reports::Off);
  }
  return _reporting->api();
}

/// A contestant that answers wrongly would win easily.
void Scene::checkAnswers(const std::vector<std::uint32_t>& queries) {
  for (const std::uint32_t ip : queries) {
    ravel::IPInfo fromClient;
    ravel::IPInfo fromTable;
    std::uint32_t ids[4];
    std::string names[4];
    IPHumanMessage message;
    const bool hit = lowerBound().lookup(ip, &fromTable);
    const bool same =
        api().getIPInfo(ip, &fromClient) == hit && mmdb().findIds(ip, ids) == hit &&
        api().getIPInfo(ip, &message) == hit && mmdb().findNames(ip, names) == hit &&
        (!hit || (fromClient.district == fromTable.district && fromClient.oper == fromTable.oper &&
                  ids[0] == fromTable.country && ids[1] == fromTable.province &&
                  ids[2] == fromTable.city && ids[3] == fromTable.oper &&
                  message.m_country == names[0] && message.m_province == names[1] &&
                  message.m_city == names[2] && message.m_oper == names[3]));
    if (!same) {
      std::fprintf(stderr, "the contestants disagree about address %u\n", ip);
      std::abort();
    }
  }
}

}  // namespace tolvar_bench
