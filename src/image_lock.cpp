#include <algorithm>
#include <cstring>

#include "platform/shared_write_point.h"
#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/segment_layout.h"

namespace {

/// A wait for the lock looks this often whether the client is to stop.
constexpr int kRoundMillis = 100;
/// A client whose tables are its own can publish without the lock, so it does not wait for long.
constexpr int kUnsharedMillis = 1000;

}  // namespace

/// Takes the lock that processes publish and start under, for which it waits `milliseconds`.
tolvar::ImageLock TolvarAPI::acquireImageLock(int milliseconds) {
  using tolvar::ImageLock;
  const key_t key = m_shm_key[2];
  if (key == 0) return ImageLock::Unavailable;  // no shared image yet
  std::string fault;
  for (int waited = 0; waited == 0 || waited < milliseconds; waited += kRoundMillis) {
    try {
      if (m_internals->imageLock.acquire(key, kRoundMillis)) return ImageLock::Held;
      fault.clear();
    } catch (const qel::LockRefused& error) {
      const std::string what = std::string("used without its lock: ") + error.what();
      noteError(tolvar::Step::ShareMemory, what.c_str());
      TOLVAR_LOG(kLogWarn, __LINE__, "share memory is " << what);
      return ImageLock::Unavailable;
    } catch (const qel::ZU_Exception& error) {
      fault = error.what();  // others may hold it all the same
    }
    if (m_terminated || m_internals->destroying) return ImageLock::Stopping;
  }
  if (!fault.empty()) {
    TOLVAR_LOG(kLogError, __LINE__, "the lock of the share memory cannot be taken: " << fault);
  }
  return ImageLock::Busy;
}

/// Begins a publication. True: with the segments as they now are, and under the lock if there is
/// one: a host without semaphores is served as well as it can be, by one publisher at a time.
/// False: the tables stay in this process, as the start found no way to share them and there still
/// is none.
bool TolvarAPI::lockImage() {
  using tolvar::ImageLock;
  // No start has come as far as segments that may be used.
  if (m_shm_key[2] == 0 && m_shm[0].getPointer() == nullptr) return false;
  const bool unshared = m_internals->unshared;
  const int limit = unshared ? std::min(m_internals->publisherLockMillis, kUnsharedMillis)
                             : m_internals->publisherLockMillis;
  const ImageLock lock = acquireImageLock(limit);
  if (lock == ImageLock::Held || lock == ImageLock::Unavailable) {
    if (unshared) return attachLate();
    refreshAttachments();
    noteShared();
    return true;
  }
  if (!unshared) {
    throw qel::ZU_Exception(
        lock == ImageLock::Busy
            ? "another process holds the lock of the share memory; trying again"
            : "the client is told to stop while it waits for the lock of the share memory");
  }
  if (lock == ImageLock::Busy) {
    TOLVAR_LOG(kLogWarn, __LINE__,
               "another process still holds the lock of the share memory, the tables stay in this "
               "process");
  }
  return false;
}

/// True when the start may use the segments, which it does without a lock where there is none.
bool TolvarAPI::lockImageForStart() {
  using tolvar::ImageLock;
  const ImageLock lock = acquireImageLock(m_internals->starterLockMillis);
  if (lock == ImageLock::Held || lock == ImageLock::Unavailable) return true;
  if (lock == ImageLock::Stopping) return false;
  noteError(tolvar::Step::ShareMemory, "another process holds its lock");
  TOLVAR_LOG(kLogError, __LINE__,
             "another process has held the lock of the share memory for "
                 << m_internals->starterLockMillis
                 << " ms; the tables stay in this process until a publication gets it");
  return false;
}

/// The segments are attached. What is shared without the lock is not all right, though.
void TolvarAPI::noteShared() noexcept {
  if (m_internals->imageLock.held()) noteSuccess(tolvar::Step::ShareMemory);
}

/// Another process may have replaced a segment by a larger one, or moved regions in place, since
/// this one attached to it; an operator may have removed it.
void TolvarAPI::refreshAttachments() {
  if (m_shm_key[2] == 0) return;
  bool anyReady = false;
  bool anyLaid = false;
  for (int shm_index = 0; shm_index < 2; ++shm_index) {
    if (!attachAgain(shm_index)) {
      MemoryHead unknown;
      unknown.ip_usable = kMemoryStatusUnknown;
      unknown.code_usable = kMemoryStatusUnknown;
      WriteMemoryHead(shm_index, unknown);
      layRegions(shm_index, m_shm[shm_index].size(), false);
      m_internals->imagesInSync = false;
      anyLaid = true;
    }
    ReadMemoryHead(shm_index, &m_memory_head[shm_index]);
    anyReady = anyReady || m_memory_head[shm_index].ready();
  }
  // With no complete image left, the names have to be written anew as well.
  if (anyLaid && !anyReady) m_isCheckingCode = true;
}

/// Makes the segment behind the key the one in use. True when its regions are in order, false when
/// they must be laid anew.
bool TolvarAPI::attachAgain(int shm_index) {
  qel::ZU_Shm& shm = m_shm[shm_index];
  const key_t key = m_shm_key[shm_index];
  if (shm.getPointer() != nullptr && qel::ZU_Shm::idOf(key) == shm.id())
    return connectRegions(shm_index);
  TOLVAR_LOG(kLogInfo, __LINE__,
             "share memory was replaced, attaching to it again. shm_index=" << shm_index);
  qel::ZU_Shm old;
  old.swap(shm);
  try {
    attachSegment(shm_index, std::max(old.size(), tolvar::defaultSegmentBytes()));
  } catch (const qel::ZU_Exception& error) {
    if (old.getPointer() == nullptr) throw;
    TOLVAR_LOG(kLogError, __LINE__,
               "cannot attach to share memory again, no other process sees what is published. "
               "shm_index="
                   << shm_index << ", " << error.what());
    shm.detach();
    shm.swap(old);
    return connectRegions(shm_index);
  }
  if (shm.iscreate() && old.getPointer() != nullptr && old.size() <= shm.size()) {
    // It was removed, but this process still has its content.
    MemoryHead head;
    std::memcpy(&head, old.getPointer(), sizeof head);
    qel::sharedCopy("segment content", static_cast<char*>(shm.getPointer()) + sizeof head,
                    static_cast<const char*>(old.getPointer()) + sizeof head,
                    old.size() - sizeof head);
    WriteMemoryHead(shm_index, head);
  }
  return connectRegions(shm_index);
}
