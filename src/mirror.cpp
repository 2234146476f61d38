#include "platform/assertion.h"
#include "src/client_internals.h"
#include "src/segment_copy.h"
#include "src/segment_layout.h"

/// The two data segments: which of them may be written, and the second as a copy of the first.

namespace {

constexpr const char* kCopyFunction = "void TolvarAPI::CopyShareMemory(int, int)";

}  // namespace

void TolvarAPI::beginPublication(int target, std::uint32_t MemoryHead::*half) {
  const int other = 1 - target;
  MemoryHead heads[2];
  ReadMemoryHead(0, &heads[0]);
  ReadMemoryHead(1, &heads[1]);
  // An earlier publication, of this process or of one that was killed, may not have reached its
  // end. The half that is not about to be written must not come from a segment that it left
  // unfinished, and the only complete image is not written before there is a second one.
  if (heads[other].ready() && (!m_internals->imagesInSync || !heads[target].ready())) {
    mirrorImage(other, target);
  } else if (heads[target].ready() && !heads[other].ready()) {
    mirrorImage(target, other);
  }
  m_internals->imagesInSync = false;
  setHalf(target, half, kMemoryStatusPending);
}

void TolvarAPI::setHalf(int shm_index, std::uint32_t MemoryHead::*half, MemoryStatus status) {
  ReadMemoryHead(shm_index, &m_memory_head[shm_index]);
  m_memory_head[shm_index].*half = status;
  WriteMemoryHead(shm_index, m_memory_head[shm_index]);
  ReadMemoryHead(shm_index, &m_memory_head[shm_index]);
}

void TolvarAPI::setPending(int shm_index) {
  setHalf(shm_index, &MemoryHead::ip_usable, kMemoryStatusPending);
  setHalf(shm_index, &MemoryHead::code_usable, kMemoryStatusPending);
}

/// Makes `to` the same as `from`: room, regions and content, whatever it was before.
void TolvarAPI::mirrorImage(int from, int to) {
  // Only halves that are complete in the source may be announced: on a cold start the other half is
  // still empty, and another process would take an empty table for a good one.
  MemoryHead announced;
  ReadMemoryHead(from, &announced);
  copyImage(from, to, announced);
  m_internals->imagesInSync = true;
}

/// Bytes of a segment up to the end of its last region. What lies behind is room for regions that
/// grow: to read it would be enough to have the system provide memory for it.
std::size_t TolvarAPI::endOfRegions(int shm_index) const {
  const ProlatePointer& last = m_holder[shm_index].code_ptr[tolvar::kCodeTables - 1];
  const auto* const segment = static_cast<const char*>(m_shm[shm_index].getPointer());
  return static_cast<std::size_t>(static_cast<const char*>(last.Data()) - segment) + last.Size();
}

/// Makes segment `to`, which is too small, anew with the content of `from` and its own head: what
/// it held would be overwritten, and need not be moved first. The head comes last, as a segment is
/// known by the marks in its content; until then its statuses are those of an empty one.
void TolvarAPI::copyIntoLarger(int from, int to) {
  const std::size_t next = CalculateNextSize(m_shm[from].size());
  walkRegions(to);  // a damaged one could not be kept if there is none larger to be had
  qel::ZU_Shm old;
  replaceSegment(to, next, &old);
  tolvar::fillContent(m_shm[to], sizeof(MemoryHead), m_shm[from], endOfRegions(from));
  WriteMemoryHead(to, m_memory_head[to]);
  walkRegions(to);
  WriteShareMemorySize(next);
}

void TolvarAPI::CopyShareMemory(int from, int to) {
  MemoryHead ready;
  ready.ip_usable = kMemoryStatusReady;
  ready.code_usable = kMemoryStatusReady;
  copyImage(from, to, ready);
}

void TolvarAPI::copyImage(int from, int to, const MemoryHead& announced) {
  ReadMemoryHead(to, &m_memory_head[to]);
  m_memory_head[to].ip_usable = kMemoryStatusPending;
  m_memory_head[to].code_usable = kMemoryStatusPending;
  WriteMemoryHead(to, m_memory_head[to]);

  std::size_t total = 0;
  const std::size_t offset = sizeof(MemoryHead);
  const bool grows = m_shm[to].size() < m_shm[from].size();
  if (grows) copyIntoLarger(from, to);
  // A record that an operator removed is written anew from what the segments really are.
  // It is not asked for once more: a system that removes what nobody is attached to has done so.
  if (!ReadShareMemorySize(&total)) {
    total = m_shm[from].size();
    WriteShareMemorySize(total);
  }
  qel::require(total > offset, "total_shm_size > offset", "TolvarAPI", __LINE__, kCopyFunction);
  if (!grows) {
    // The record is a hint. What is copied are the source's regions, which the target is large
    // enough for, and neither mapping is touched beyond its end.
    tolvar::copyContent(m_shm[to], offset, m_shm[from], endOfRegions(from));
    walkRegions(to);
  }

  m_memory_head[to].ip_usable = announced.ip_usable;
  m_memory_head[to].code_usable = announced.code_usable;
  WriteMemoryHead(to, m_memory_head[to]);
  ReadMemoryHead(to, &m_memory_head[to]);
}
