#include <algorithm>

#include "src/client_internals.h"

TolvarReader::TolvarReader(const tolvar::ClientInternals& internals) noexcept
    : _tables(internals.tables.peek()) {}

TolvarReader TolvarAPI::read() const noexcept { return TolvarReader(*m_internals); }

bool TolvarReader::getIPInfo(std::uint32_t ip, ravel::IPInfo* info) const noexcept {
  return _tables->ranges->lookup(ip, info);
}

bool TolvarReader::getIPInfo(std::uint32_t ip, IPNameView* names) const noexcept {
  const std::uint32_t tuple = _tables->ranges->findTuple(ip);
  if (tuple == 0) return false;
  *names = _tables->names->row(tuple);
  return true;
}

std::size_t TolvarReader::getIPInfoBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                                         std::uint8_t* found) const noexcept {
  _tables->ranges->findBatch(ips, infos, found);
  return static_cast<std::size_t>(std::count(found, found + ips.size(), std::uint8_t{1}));
}

std::size_t TolvarAPI::getIPInfoBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                                      std::uint8_t* found) const noexcept {
  return read().getIPInfoBatch(ips, infos, found);
}
