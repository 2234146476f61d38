#include "tests/src/update/table_server.h"

#include <algorithm>

#include "platform/exception.h"

namespace tolvar_test {
namespace {

std::uint32_t mixed(std::uint32_t start, std::uint32_t version) {
  std::uint32_t value = start ^ (version * 2654435761u);
  value ^= value >> 15;
  value *= 2246822519u;
  return value ^ (value >> 13);
}

std::int64_t placeOf(std::uint32_t start, std::uint32_t version) {
  return (std::int64_t{1} + version % 900) * 1000000000 + mixed(start, version) % 1000000000;
}

ravel::IPProperty selfCheckingRow(std::uint32_t start, std::uint32_t version) {
  ravel::IPProperty range = row(start, start + 127, placeOf(start, version), version);
  range.extend = mixed(start, version);
  range.nettype = ~range.extend;
  range.apn = version & 0xff;
  range.flable = (start >> 8) & 0xff;
  return range;
}

}  // namespace

ravel::IPProperty row(std::uint32_t start, std::uint32_t end, std::int64_t place,
                      std::uint32_t oper) {
  ravel::IPProperty range;
  range.startIP = start;
  range.endIP = end;
  range.place = place;
  range.oper = oper;
  return range;
}

ravel::CodeInfo code(std::int32_t type, std::int64_t id, const std::string& name) {
  ravel::CodeInfo entry;
  entry.codeType = type;
  entry.ID = id;
  entry.content = name;
  return entry;
}

Table selfCheckingTable(std::uint32_t version, std::size_t count) {
  Table table;
  const std::string mark = "v" + std::to_string(version);
  for (std::size_t i = 0; i < count; ++i) {
    table.rows.push_back(
        selfCheckingRow(kFirstAddress + static_cast<std::uint32_t>(i) * 256, version));
  }
  const std::int64_t country = 1 + version % 900;
  table.codes.push_back(code(1, country, mark + " country"));
  table.codes.push_back(code(6, version, mark + " oper"));
  table.codes.push_back(code(8, version & 0xff, mark + " apn"));
  return table;
}

std::uint32_t versionOf(std::uint32_t ip, const ravel::IPInfo& info) {
  const ravel::IPProperty truth = selfCheckingRow(ip & ~0xffu, info.oper);
  const bool whole = info.district == truth.place && info.extend == truth.extend &&
                     info.nettype == truth.nettype && info.apn == truth.apn &&
                     info.flable == truth.flable &&
                     info.country == static_cast<std::uint32_t>(truth.place / 1000000000) &&
                     info.province == static_cast<std::uint32_t>(truth.place / 1000000) &&
                     info.city == static_cast<std::uint32_t>(truth.place / 1000);
  return whole ? info.oper : 0;
}

TableServer::TableServer(const std::shared_ptr<FakeService>& service, std::size_t pageRanges)
    : _service(service), _pageRanges(pageRanges) {
  _digest = digestOf(ravel::vIPProperty());
  service->getConf = [this](ravel::ClientConf&) { failWhenDown(); };
  service->checkChange = [this](const ravel::CheckReq& req, ravel::CheckInfo& info) {
    failWhenDown();
    info.isReset = req.contentMd5 == digest() ? 0 : 1;
  };
  service->download = service->firstDownload =
      [this](std::uint32_t high, std::uint32_t low, std::uint32_t size, ravel::downloadInfo& page) {
        answerPage(high, low, size, page);
      };
  service->codes = [this](std::vector<ravel::CodeInfo>& codes) {
    failWhenDown();
    if (beforeCodes) beforeCodes();
    std::lock_guard<std::mutex> hold(_mutex);
    codes = _table.codes;
  };
}

TableServer::~TableServer() {
  _service->getConf = nullptr;
  _service->checkChange = nullptr;
  _service->download = _service->firstDownload = nullptr;
  _service->codes = nullptr;
}

void TableServer::publish(Table table) {
  const std::string digest = digestOf(table.rows);
  std::lock_guard<std::mutex> hold(_mutex);
  ++_stamp;
  for (std::size_t i = 0; i < table.rows.size(); ++i) {
    table.rows[i].timesTamp = _stamp;
    table.rows[i].sequence = static_cast<std::uint32_t>(i + 1);
  }
  _table = std::move(table);
  _digest = digest;
}

std::string TableServer::digest() const {
  std::lock_guard<std::mutex> hold(_mutex);
  return _digest;
}

void TableServer::failWhenDown() const {
  if (_down) throw qel::ZU_Exception("the service is down");
}

void TableServer::answerPage(std::uint32_t high, std::uint32_t low, std::uint32_t size,
                             ravel::downloadInfo& page) {
  failWhenDown();
  if (beforePage) beforePage();
  std::lock_guard<std::mutex> hold(_mutex);
  const bool follows = high == _stamp && low <= _table.rows.size();
  const std::size_t first = follows ? low : 0;
  const std::size_t wanted = std::min<std::size_t>(size, _pageRanges);
  const std::size_t end = std::min(first + wanted, _table.rows.size());
  page.highMaxIndex = _stamp;
  page.lowMaxIndex = static_cast<std::uint32_t>(_table.rows.size());
  page.isdownloadReset = follows ? 0 : 1;
  page.IPContent.assign(_table.rows.begin() + static_cast<std::ptrdiff_t>(first),
                        _table.rows.begin() + static_cast<std::ptrdiff_t>(end));
}

}  // namespace tolvar_test
