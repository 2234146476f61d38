#include <new>

#include "include/lookup_types.h"
#include "platform/toolkit.h"
#include "src/client_internals.h"
#include "src/copy_names.h"

namespace {

/// Longest sampled line, in bytes. An address is whatever text the host was sent, and transports
/// refuse longer lines, with all others of the delivery, each time it is repeated.
constexpr std::size_t kMaxSampleBytes = 8192;

/// Does `report`, which is about a lookup that was drawn as a sample. One for which there is no
/// memory was not drawn; the answer stands.
template <class Report>
void sample(Report report) {
  try {
    report();
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace

bool TolvarAPI::getIPInfo(std::uint32_t ip, IPHumanMessage* msg) try {
  enum class Answer : std::uint8_t { Missed, Found, FoundAndReported };
  const auto answer = m_internals->tables.with([=, this](const tolvar::LookupSnapshot* tables) {
    const std::uint32_t tuple = tables->finder.findTuple(ip);
    if (tuple == 0) return Answer::Missed;
    tolvar::copyNames(*tables->names, tuple, msg);
    return m_client_conf.peek().conf.statisOpen ? Answer::FoundAndReported : Answer::Found;
  });
  if (answer == Answer::FoundAndReported) [[unlikely]] {
    m_report.report(ravel::ECountry, msg->m_country);
    m_report.report(ravel::EProvince, msg->m_province);
    m_report.report(ravel::ECity, msg->m_city);
    m_report.report(ravel::EOperator, msg->m_oper);
  }
  return answer != Answer::Missed;
} catch (const std::bad_alloc&) {
  *msg = IPHumanMessage();  // rather than a part of the names
  return false;
}

bool TolvarAPI::getIPInfoFromStr(const std::string& ip, ravel::IPInfo* info) {
  const bool found = getIPInfo(Toolkit::s2ipD(ip), info);
  if (!found && simple() && m_client_conf.getQueryData()->conf.logUnknownIp)
    sample([&] { reportLog("unknown ip:" + ip); });
  return found;
}

bool TolvarAPI::getIPInfoFromStr(const std::string& ip, IPHumanMessage* msg) {
  const bool found = getIPInfo(Toolkit::s2ipD(ip), msg);
  if (found && simple() && m_client_conf.getQueryData()->citys.count(msg->m_city) != 0)
    sample([&] { reportLog(msg->ToString()); });
  return found;
}

bool TolvarAPI::simple() {
  // Counted without a locked instruction, which would have all threads wait for each other's: calls
  // at the same moment may count as one, and that only shifts the sample. Unsigned arithmetic: the
  // counter wraps without undefined behaviour.
  const auto before = static_cast<std::uint64_t>(m_simple_key.load(std::memory_order_relaxed));
  auto key = static_cast<std::int64_t>(before + 1u);
  if (key < 0) {
    // The smallest number has no negation; the count then begins anew.
    key = key == INT64_MIN ? 0 : -key;
  }
  m_simple_key.store(key, std::memory_order_relaxed);
  return key % 10000 < m_client_conf.getQueryData()->conf.simplingRate;
}

void TolvarAPI::reportLog(const std::string& text) {
  const int limit = m_client_conf.getQueryData()->conf.logBufferLimit;
  if (text.size() <= kMaxSampleBytes) return m_report.reportSimpleLog(text, limit);
  m_report.reportSimpleLog(text.substr(0, kMaxSampleBytes - 3) + "...", limit);
}

std::string IPHumanMessage::ToString() const {
  std::string line;
  const auto add = [&line](const char* key, const std::string& value) {
    line.append(key).append("=").append(value);
  };
  add(" country", m_country);
  add(" province", m_province);
  add(" city", m_city);
  add(" district", m_district);
  add(" extend", m_extend);
  add(" oper", m_oper);
  add(" nettype", m_nettype);
  add(" apn", m_apn);
  add(" flable", m_flable);
  return line;
}
