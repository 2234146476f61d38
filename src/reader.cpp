#include <new>

#include "src/client_internals.h"

/// The lookups that neither lock nor allocate nor call the operating system. They lie together, and
/// apart from those that may, so that a test can tell by the symbols of this one object file, and
/// so that a lookup is one piece of code without calls.

using tolvar::LookupSnapshot;

// A call of its own would cost more than all the rest of it.
[[gnu::always_inline]] inline TolvarReader::TolvarReader(const tolvar::ClientInternals& internals,
                                                         tolvar::ReadSection section) noexcept
    : _section(std::move(section)), _tables(internals.tables.peek()) {}

// Kept out of `read`, which then calls nothing and need not keep registers for others.
[[gnu::noinline]] TolvarReader TolvarReader::otherwise(
    const tolvar::ClientInternals& internals) noexcept {
  return TolvarReader(internals, tolvar::ReadSection());
}

TolvarReader TolvarAPI::read() const noexcept {
  tolvar::ReaderSlot* const slot = tolvar::epochs::ownSlot();
  if (!tolvar::OutermostReadSection::possible(slot)) [[unlikely]]
    return TolvarReader::otherwise(*m_internals);
  return TolvarReader(*m_internals, tolvar::ReadSection::outermost(slot));
}

bool TolvarReader::getIPInfo(std::uint32_t ip, ravel::IPInfo* info) const noexcept {
  return _tables->finder.lookup(ip, info);
}

bool TolvarReader::getIPInfo(std::uint32_t ip, IPNameView* names) const noexcept {
  const std::uint32_t tuple = _tables->finder.findTuple(ip);
  if (tuple == 0) return false;
  // Made where it belongs: assigned, it would go through memory of its own, and what is written in
  // one size and read in another makes a processor wait.
  ::new (static_cast<void*>(names)) IPNameView(_tables->names->row(tuple));
  return true;
}

std::size_t TolvarReader::getIPInfoBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                                         std::uint8_t* found) const noexcept {
  return _tables->finder.findBatch(ips, infos, found);
}

bool TolvarAPI::getIPInfo(std::uint32_t ip, ravel::IPInfo* info) {
  return m_internals->tables.with(
      [=](const LookupSnapshot* tables) noexcept { return tables->finder.lookup(ip, info); });
}

std::size_t TolvarAPI::getIPInfoBatch(std::span<const std::uint32_t> ips, ravel::IPInfo* infos,
                                      std::uint8_t* found) const noexcept {
  return m_internals->tables.with([=](const LookupSnapshot* tables) noexcept {
    return tables->finder.findBatch(ips, infos, found);
  });
}

bool TolvarAPI::binarySearch(std::uint32_t ip, VALUE* value) {
  ravel::IPInfo info;
  if (!getIPInfo(ip, &info)) return false;
  value->place = info.district;
  value->extend = info.extend;
  value->oper = info.oper;
  value->nettype = info.nettype;
  value->apn = static_cast<std::uint8_t>(info.apn);
  value->flable = static_cast<std::uint8_t>(info.flable);
  return true;
}
