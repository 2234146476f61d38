#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

#include "platform/shared_write_point.h"
#include "platform/shm_directory.h"
#include "src/client_internals.h"
#include "src/client_log.h"

/// The words in shared memory that stand for themselves: the size record, and the head of a data
/// segment.

namespace {

/// A status in shared memory, as all processes read and write it.
using StatusWord = std::atomic_ref<std::uint32_t>;
static_assert(StatusWord::is_always_lock_free);

/// A record is never made larger or smaller, whatever its words are.
void checkRecordBytes(std::size_t bytes, key_t key) {
  if (bytes == sizeof(ShmSize)) return;
  throw qel::ZU_Exception("the segment behind key " + std::to_string(key) + " (" +
                          std::to_string(bytes) +
                          " bytes) is no size record of this library; choose another shm_key_3 or "
                          "remove the segment");
}

void attachRecord(qel::ZU_Shm* segment, key_t key) {
  segment->init(sizeof(ShmSize), key);
  checkRecordBytes(segment->size(), key);
}

}  // namespace

/// Throws when somebody else's segment lies behind the record's key. Looks at it from outside, for
/// the time before the lock is made behind the same key; what cannot be seen is left to the attach.
void TolvarAPI::refuseForeignRecord() {
  const key_t key = m_shm_key[2];
  std::optional<qel::ShmRecord> found;
  try {
    found = qel::segmentBehind(key);
  } catch (const qel::ZU_Exception& error) {
    TOLVAR_LOG(kLogDebug, __LINE__, "the size record is looked at later: " << error.what());
  }
  if (found) checkRecordBytes(found->bytes, key);
}

bool TolvarAPI::ReadShareMemorySize(std::size_t* size) {
  qel::ZU_Shm segment;
  attachRecord(&segment, m_shm_key[2]);
  if (segment.iscreate()) return false;
  ShmSize record;
  std::memcpy(&record, segment.getPointer(), sizeof record);
  if (!record.valid()) return false;
  *size = record.m_size;
  return true;
}

void TolvarAPI::WriteShareMemorySize(std::size_t size) {
  qel::ZU_Shm segment;
  attachRecord(&segment, m_shm_key[2]);
  ShmSize record;
  std::fill(std::begin(record.m_usable), std::end(record.m_usable), kApiVersion);
  record.m_size = size;
  qel::sharedCopy("size record", segment.getPointer(), &record, sizeof record);
}

void TolvarAPI::ReadMemoryHead(int shm_index, MemoryHead* head) {
  auto* shared = static_cast<MemoryHead*>(m_shm[shm_index].getPointer());
  // What a ready segment holds is read after its statuses.
  const std::uint32_t ip = StatusWord(shared->ip_usable).load(std::memory_order_acquire);
  const std::uint32_t code = StatusWord(shared->code_usable).load(std::memory_order_acquire);
  std::memcpy(head, shared, sizeof *head);
  head->ip_usable = ip;
  head->code_usable = code;
}

void TolvarAPI::WriteMemoryHead(int shm_index, const MemoryHead& head) {
  auto* shared = static_cast<MemoryHead*>(m_shm[shm_index].getPointer());
  qel::sharedWritePoint("head padding");
  std::memcpy(&shared->pad0, &head.pad0, sizeof head - offsetof(MemoryHead, pad0));
  // Exchanges order both sides: content written before "ready" is in place before the word, and
  // "pending" is in place before the content changes.
  qel::sharedWritePoint("ip status");
  StatusWord(shared->ip_usable).exchange(head.ip_usable, std::memory_order_seq_cst);
  qel::sharedWritePoint("code status");
  StatusWord(shared->code_usable).exchange(head.code_usable, std::memory_order_seq_cst);
}
