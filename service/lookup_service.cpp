#include "service/lookup_service.h"

#include <algorithm>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace tolvar::service {
namespace {

bool sameContent(const ravel::ClientConf& a, const ravel::ClientConf& b) {
  return std::tie(a.statisOpen, a.simpleLogCitys, a.simplingRate, a.logBufferLimit,
                  a.logUnknownIp) ==
         std::tie(b.statisOpen, b.simpleLogCitys, b.simplingRate, b.logBufferLimit, b.logUnknownIp);
}

std::uint32_t nextTimesTamp(std::uint32_t last, std::time_t now) {
  if (last == UINT32_MAX)
    throw std::invalid_argument("no time stamp is left above the last version's");
  const std::time_t latest = UINT32_MAX;
  return std::max(last + 1, static_cast<std::uint32_t>(std::clamp<std::time_t>(now, 1, latest)));
}

}  // namespace

LookupService::LookupService(qel::Clock& clock, UsageLimits limits)
    : _clock(clock), _usage(limits) {}

std::shared_ptr<const TableVersion> LookupService::publish(TableData data, EmptyTable empty) {
  const std::lock_guard publishing(_publishMutex);
  const auto last = current();
  auto version = std::make_shared<const TableVersion>(
      std::move(data), nextTimesTamp(last ? last->timesTamp() : 0, _clock.time()));
  replace(version, empty);
  return version;
}

std::shared_ptr<const TableVersion> LookupService::publish(
    std::shared_ptr<const TableVersion> version, EmptyTable empty) {
  if (version == nullptr) throw std::invalid_argument("no table version given");
  const std::lock_guard publishing(_publishMutex);
  const auto last = current();
  if (last != nullptr && version->timesTamp() <= last->timesTamp()) {
    throw std::invalid_argument("time stamp " + std::to_string(version->timesTamp()) +
                                " is not above " + std::to_string(last->timesTamp()) +
                                " of the version before");
  }
  replace(version, empty);
  return version;
}

void LookupService::replace(std::shared_ptr<const TableVersion> version, EmptyTable empty) {
  if (version->ranges().empty() && empty == EmptyTable::Refuse)
    throw std::invalid_argument("the table has no ranges; publishing it must be forced");
  const std::lock_guard lock(_mutex);
  _current.swap(version);
}

std::shared_ptr<const TableVersion> LookupService::current() const {
  const std::lock_guard lock(_mutex);
  return _current;
}

std::shared_ptr<const TableVersion> LookupService::currentOrThrow() const {
  auto version = current();
  if (version == nullptr) throw NoTableError();
  return version;
}

std::int32_t LookupService::setConf(const ravel::ClientConf& conf) {
  const std::lock_guard lock(_mutex);
  if (sameContent(conf, _conf)) return _conf.confVersion;
  const std::int32_t last = _conf.confVersion;
  _conf = conf;
  _conf.confVersion = last < INT32_MAX ? last + 1 : 1;
  return _conf.confVersion;
}

void LookupService::restoreConf(const ravel::ClientConf& conf) {
  const std::lock_guard lock(_mutex);
  _conf = conf;
}

ravel::ClientConf LookupService::getConf() const {
  const std::lock_guard lock(_mutex);
  return _conf;
}

ravel::CheckInfo LookupService::checkChangeAdv(const ravel::CheckReq& req) const {
  ravel::CheckInfo info;
  if (overloaded()) {
    info.isNetFlow = 1;
    return info;
  }
  const std::lock_guard lock(_mutex);
  info.isReset = _current != nullptr && req.contentMd5 != _current->digest();
  info.updateConf = req.confVersion != _conf.confVersion;
  return info;
}

ravel::downloadInfo LookupService::totalDownloadIPInfo(std::uint32_t high, std::uint32_t low,
                                                       std::uint32_t size) const {
  const auto version = currentOrThrow();
  const PageSlice slice = version->slice(high, low, size);
  ravel::downloadInfo page;
  page.highMaxIndex = static_cast<std::uint32_t>(slice.endIndex >> 32);
  page.lowMaxIndex = static_cast<std::uint32_t>(slice.endIndex);
  page.isdownloadReset = slice.isReset;
  const auto first = version->ranges().begin() + static_cast<std::ptrdiff_t>(slice.first);
  page.IPContent.assign(first, first + static_cast<std::ptrdiff_t>(slice.count));
  return page;
}

ravel::downloadInfo LookupService::FirstTotalDownloadIPInfo(std::uint32_t high, std::uint32_t low,
                                                            std::uint32_t size) const {
  return totalDownloadIPInfo(high, low, size);
}

std::vector<ravel::CodeInfo> LookupService::totalDownloadCode() const {
  return currentOrThrow()->codes();
}

void LookupService::reportCounts(const std::vector<ravel::ReportCount>& counts,
                                 std::uint64_t dropped) {
  _usage.addCounts(counts, dropped);
}

void LookupService::reportLines(const std::vector<std::string>& lines, std::uint64_t dropped) {
  _usage.addLines(lines, dropped);
}

}  // namespace tolvar::service
