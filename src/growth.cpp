#include <algorithm>
#include <array>
#include <cstring>

#include "platform/assertion.h"
#include "platform/shared_write_point.h"
#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/segment_copy.h"
#include "src/segment_layout.h"

using tolvar::kCodeTables;
using tolvar::kHeadBytes;
using tolvar::kSizeWordBytes;

namespace {

constexpr const char* kResizeFunction = "void TolvarAPI::ResizeShareMemory(int, size_t)";
constexpr const char* kCopyFunction = "void TolvarAPI::CopyShareMemory(int, int)";

void require(bool holds, const char* expression, const char* function, unsigned line) {
  if (!holds) qel::assertionFailed(expression, "TolvarAPI", line, function);
}

std::size_t bytesOf(const ProlatePointer& region) { return region.Size() + kSizeWordBytes; }

/// Copies all of `from`, from byte `offset` on, to the same place of a segment that is not smaller.
void copyContent(void (*copy)(void*, const void*, std::size_t), qel::ZU_Shm& to, std::size_t offset,
                 const qel::ZU_Shm& from) {
  copy(static_cast<char*>(to.getPointer()) + offset,
       static_cast<const char*>(from.getPointer()) + offset, from.size() - offset);
}

/// The same for a segment that was just initialized. One that was made here holds zeros; another
/// process's may hold anything.
void fill(qel::ZU_Shm& to, std::size_t offset, const qel::ZU_Shm& from) {
  copyContent(to.iscreate() ? tolvar::copyToNewSegment : tolvar::copyToSegment, to, offset, from);
}

}  // namespace

void TolvarAPI::ResizeShareMemory(int shm_index, std::size_t size) {
  require(shm_index == 0 || shm_index == 1, "(shm_index == 0) || (shm_index == 1)", kResizeFunction,
          __LINE__);
  qel::ZU_Shm& shm = m_shm[shm_index];
  require(shm.size() > sizeof(MemoryHead), "origin_size > sizeof(MemoryHead)", kResizeFunction,
          __LINE__);
  if (shm.size() >= size) return;
  const std::size_t next = CalculateNextSize(size);

  walkRegions(shm_index);
  qel::ZU_Shm old;
  replaceSegment(shm_index, next, &old);
  fill(shm, 0, old);
  walkRegions(shm_index);
  WriteShareMemorySize(next);
}

/// Puts a segment of `next` bytes in the place of a smaller one. That one becomes `*old`: gone
/// behind its key, but mapped here until a successor holds its content. Where no larger one is to
/// be had, keeps the content and throws.
void TolvarAPI::replaceSegment(int shm_index, std::size_t next, qel::ZU_Shm* old) {
  qel::ZU_Shm& shm = m_shm[shm_index];
  shm.remove();
  old->swap(shm);
  try {
    shm.init(next, m_shm_key[shm_index]);
    if (shm.size() < next) {
      throw qel::ZU_Exception("another process made the segment behind key " +
                              std::to_string(m_shm_key[shm_index]) + " with " +
                              std::to_string(shm.size()) + " bytes");
    }
  } catch (const qel::ZU_Exception& error) {
    TOLVAR_LOG(kLogError, __LINE__,
               "cannot grow share memory to " << next << " bytes, keeping " << old->size()
                                              << ". shm_index=" << shm_index << ", "
                                              << error.what());
    keepContent(shm_index, *old);
    throw;
  }
}

/// Moves the content of `old` into a new segment of its size, or keeps it in this process alone.
void TolvarAPI::keepContent(int shm_index, qel::ZU_Shm& old) {
  qel::ZU_Shm& shm = m_shm[shm_index];
  try {
    shm.init(old.size(), m_shm_key[shm_index]);
    if (shm.size() < old.size()) throw qel::ZU_Exception("another process made it smaller");
  } catch (const qel::ZU_Exception& error) {
    TOLVAR_LOG(kLogError, __LINE__,
               "cannot make share memory anew, no other process sees it until it is grown or "
               "initialized. shm_index="
                   << shm_index << ", " << error.what());
    shm.swap(old);
    return;
  }
  fill(shm, 0, old);
  walkRegions(shm_index);
}

void TolvarAPI::walkRegions(int shm_index) {
  char* const segment = static_cast<char*>(m_shm[shm_index].getPointer());
  const tolvar::LayoutWalk walk = tolvar::walkLayout(segment, m_shm[shm_index].size());
  if (!walk.fits) {
    throw qel::ZU_Exception("data segment " + std::to_string(shm_index) +
                            " is damaged: " + walk.problem);
  }
  const std::array<std::size_t, tolvar::kRegions> offsets = tolvar::regionOffsets(walk.sizes);
  MemoryHolder& holder = m_holder[shm_index];
  holder.ip_ptr.ReSet(segment + offsets[0]);
  m_ip_vector_impl[shm_index].reset(holder.ip_ptr.Data(), holder.ip_ptr.Size());
  for (int k = 0; k < kCodeTables; ++k) {
    holder.code_ptr[k].ReSet(segment + offsets[static_cast<std::size_t>(1 + k)]);
    m_code_vector_impl[k][shm_index].reset(holder.code_ptr[k].Data(), holder.code_ptr[k].Size());
  }
}

/// Moves the code regions from `first` on, size words included, up by `distance` bytes.
void TolvarAPI::moveRegions(int shm_index, int first, std::size_t distance) {
  if (first == kCodeTables) return;
  MemoryHolder& holder = m_holder[shm_index];
  auto* const begin = static_cast<char*>(holder.code_ptr[first].GetPtr());
  std::size_t bytes = 0;
  for (int k = first; k < kCodeTables; ++k) bytes += bytesOf(holder.code_ptr[k]);
  qel::sharedMoveUp("regions", begin + distance, begin, bytes);
  for (int k = first; k < kCodeTables; ++k) {
    ProlatePointer& region = holder.code_ptr[k];
    region.ReSet(static_cast<char*>(region.Data()) + distance, region.Size());
    m_code_vector_impl[k][shm_index].reset(region.Data(), region.Size());
  }
}

void TolvarAPI::ResizeIpBuffer(int shm_index, std::size_t count) {
  MemoryHolder& holder = m_holder[shm_index];
  const std::size_t need = IPVector::calcMemSize(count);
  if (holder.ip_ptr.Size() >= need) return;
  const std::size_t old = holder.ip_ptr.Size();
  const std::size_t next = CalculateNextSize(need);
  std::size_t rest = old;
  for (const ProlatePointer& region : holder.code_ptr) rest += bytesOf(region);
  // The old block is counted on top of the new one, as a margin.
  ResizeShareMemory(shm_index, next + kHeadBytes + kSizeWordBytes + rest);

  moveRegions(shm_index, 0, next - old);
  holder.ip_ptr.ReSet(holder.ip_ptr.Data(), next);
  m_ip_vector_impl[shm_index].reset(holder.ip_ptr.Data(), holder.ip_ptr.Size());
}

void TolvarAPI::ResizeCodeBuffer(int shm_index, int code_index, std::size_t count) {
  MemoryHolder& holder = m_holder[shm_index];
  ProlatePointer& grown = holder.code_ptr[code_index];
  const std::size_t need = CodeVector::calcMemSize(count);
  if (grown.Size() >= need) return;
  const std::size_t old = grown.Size();
  std::size_t before = holder.ip_ptr.Size() + kHeadBytes + kSizeWordBytes;
  for (int k = 0; k < code_index; ++k) before += bytesOf(holder.code_ptr[k]);
  const std::size_t next = CalculateNextSize(need);
  std::size_t after = old;
  for (int k = code_index + 1; k < kCodeTables; ++k) after += bytesOf(holder.code_ptr[k]);
  // The old block is counted on top of the new one, as a margin; the grown region's own size word
  // is covered by it.
  ResizeShareMemory(shm_index, before + next + after);

  moveRegions(shm_index, code_index + 1, next - old);
  grown.ReSet(grown.Data(), next);
  m_code_vector_impl[code_index][shm_index].reset(grown.Data(), grown.Size());
}

/// Makes segment `to`, which is too small, anew with the content of `from` and its own head: what
/// it held would be overwritten, and need not be moved first. The head comes last, as a segment is
/// known by the marks in its content; until then its statuses are those of an empty one.
void TolvarAPI::copyIntoLarger(int from, int to) {
  const std::size_t next = CalculateNextSize(m_shm[from].size());
  walkRegions(to);  // a damaged one could not be kept if there is none larger to be had
  qel::ZU_Shm old;
  replaceSegment(to, next, &old);
  fill(m_shm[to], sizeof(MemoryHead), m_shm[from]);
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
  if (!ReadShareMemorySize(&total)) WriteShareMemorySize(m_shm[from].size());
  require(ReadShareMemorySize(&total), "ReadShareMemorySize(&total_shm_size)", kCopyFunction,
          __LINE__);
  require(total > offset, "total_shm_size > offset", kCopyFunction, __LINE__);
  if (!grows) {
    // The record is a hint. What is copied is the whole source, which the target is large enough
    // for, and neither mapping is touched beyond its end.
    copyContent(tolvar::copyToSegment, m_shm[to], offset, m_shm[from]);
    walkRegions(to);
  }

  m_memory_head[to].ip_usable = announced.ip_usable;
  m_memory_head[to].code_usable = announced.code_usable;
  WriteMemoryHead(to, m_memory_head[to]);
  ReadMemoryHead(to, &m_memory_head[to]);
}
