#include "tests/crash/answer_check.h"

#include <array>
#include <string_view>

#include "tests/src/update/table_server.h"

namespace tolvar_test {
namespace {

constexpr std::size_t kBatch = 64;
constexpr int kSinglesARound = 64;

}  // namespace

bool AnswerCheck::wrong(const std::string& what) {
  _problem = what;
  return false;
}

/// Start of a row, all rows in turn but not in order.
std::uint32_t AnswerCheck::nextStart() {
  _sequence = (_sequence + 379) % _rows;
  return kFirstAddress + static_cast<std::uint32_t>(_sequence) * 256;
}

/// `*version` is 0 for any, otherwise the one that the answer must be of.
bool AnswerCheck::take(std::uint32_t start, bool found, const ravel::IPInfo& info,
                       std::uint32_t* version) {
  ++_lookups;
  if (!found) return wrong("a range that every version has was not found");
  const std::uint32_t got = versionOf(start, info);
  if (got == 0) return wrong("the fields of an answer belong to different rows");
  if (*version != 0 && got != *version) {
    return wrong("answers of one table are of versions " + std::to_string(*version) + " and " +
                 std::to_string(got));
  }
  if (got < _version) return wrong("an answer is older than one before");
  *version = _version = got;
  return true;
}

bool AnswerCheck::takeName(const char* what, std::string_view name, const std::string& expected) {
  if (name.empty() || name == expected) return true;
  return wrong(std::string(what) + " is \"" + std::string(name) + "\" instead of \"" + expected +
               "\"");
}

bool AnswerCheck::single() {
  for (int i = 0; i < kSinglesARound; ++i) {
    const std::uint32_t start = nextStart();
    ravel::IPInfo info;
    std::uint32_t version = 0;
    if (!take(start, _client.getIPInfo(start + i % 128, &info), info, &version)) return false;
    if (_client.getIPInfo(start + 128 + i % 128, &info)) return wrong("a gap was answered");
  }
  return true;
}

bool AnswerCheck::batch() {
  std::array<std::uint32_t, kBatch> ips{};
  std::array<ravel::IPInfo, kBatch> infos;
  std::array<std::uint8_t, kBatch> found{};
  for (std::uint32_t& ip : ips) ip = nextStart();
  _client.getIPInfoBatch(ips, infos.data(), found.data());
  std::uint32_t version = 0;
  for (std::size_t i = 0; i < kBatch; ++i)
    if (!take(ips[i], found[i] == 1, infos[i], &version)) return false;
  return true;
}

bool AnswerCheck::reader() {
  const TolvarReader tables = _client.read();
  std::uint32_t version = 0;
  for (int i = 0; i < 8; ++i) {
    const std::uint32_t start = nextStart();
    ravel::IPInfo info;
    IPNameView view;
    if (!take(start, tables.getIPInfo(start, &info), info, &version)) return false;
    if (!tables.getIPInfo(start, &view)) return wrong("a range has no names");
    const std::string mark = "v" + std::to_string(version);
    if (!takeName("an operator", view.oper(), mark + " oper")) return false;
  }
  return true;
}

bool AnswerCheck::names() {
  const std::uint32_t start = nextStart();
  IPHumanMessage message;
  if (!_client.getIPInfo(start, &message)) return wrong("a range has no names");
  ++_lookups;
  // Whole or absent: either all three names are of one version or an id is of another.
  const std::string mark = message.m_oper.substr(0, message.m_oper.find(' '));
  if (!mark.empty() && (message.m_country != mark + " country" || message.m_apn != mark + " apn")) {
    return wrong("names of one answer are \"" + message.m_oper + "\", \"" + message.m_country +
                 "\" and \"" + message.m_apn + "\"");
  }
  const std::string city = _client.getCityByID(1000);
  if (!city.empty() && (city.front() != 'v' || !city.ends_with(" city 0")))
    return wrong("a city is \"" + city + "\"");
  return true;
}

bool AnswerCheck::round() { return single() && batch() && reader() && names(); }

}  // namespace tolvar_test
