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

std::size_t bytesOf(const ProlatePointer& region) { return region.Size() + kSizeWordBytes; }

}  // namespace

void TolvarAPI::ResizeShareMemory(int shm_index, std::size_t size) {
  qel::require(shm_index == 0 || shm_index == 1, "(shm_index == 0) || (shm_index == 1)",
               "TolvarAPI", __LINE__, kResizeFunction);
  qel::ZU_Shm& shm = m_shm[shm_index];
  qel::require(shm.size() > sizeof(MemoryHead), "origin_size > sizeof(MemoryHead)", "TolvarAPI",
               __LINE__, kResizeFunction);
  if (shm.size() >= size) return;
  const std::size_t next = CalculateNextSize(size);

  walkRegions(shm_index);
  qel::ZU_Shm old;
  replaceSegment(shm_index, next, &old);
  tolvar::fillContent(shm, 0, old, old.size());
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
  tolvar::fillContent(shm, 0, old, old.size());
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
