#include <algorithm>
#include <cerrno>

#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/image_codec.h"
#include "src/segment_layout.h"

/// A client whose tables are shared with nobody, because the start did not get the image's lock or
/// its segments, or because a table outgrew what the system gives. It answers from its own download
/// like any other, and every publication tries to share the tables.

namespace {

/// True when the system refuses for want of something that it may have another time: memory,
/// segments, room under a limit, or System V shared memory altogether.
bool isWant(const qel::ZU_Exception& error) {
  for (const int code : {ENOMEM, ENOSPC, EMFILE, ENFILE, EINVAL, ENOSYS})
    if (error.getErrCode() == code) return true;
  return false;
}

}  // namespace

/// As attachImage, but where the segments cannot be had the client goes on without them. What lies
/// behind a key and is not ours, or damaged beyond use, is not passed over like that.
void TolvarAPI::attachForStart(int* ready, tolvar::ImageContent* image) {
  try {
    attachImage(ready, image);
  } catch (const qel::ZU_Exception& error) {
    if (!isWant(error)) throw;
    m_internals->unshared = true;
    noteError(tolvar::Step::ShareMemory, error.what());
    TOLVAR_LOG(kLogError, __LINE__,
               "no share memory to be had, the tables stay in this process until a publication "
               "finds some: "
                   << error.what());
  }
}

/// Attaches, under the lock, what the start could not attach. Afterwards either the segments are in
/// use like those of any client, and hold what this one has if there was no image, or nothing has
/// changed and the lock is free.
bool TolvarAPI::attachLate() {
  try {
    int ready = -1;
    attachImage(&ready, nullptr);
    useSegment(std::max(ready, 0));
    m_internals->imagesInSync = false;
    if (ready < 0) shareOwnTables();
  } catch (const std::exception& error) {
    forgetSegments();
    m_internals->imageLock.release();
    noteError(tolvar::Step::ShareMemory, error.what());
    TOLVAR_LOG(
        kLogError, __LINE__,
        "still no share memory to be had, the tables stay in this process: " << error.what());
    return false;
  }
  m_internals->unshared = false;
  noteShared();
  TOLVAR_LOG(kLogInfo, __LINE__, "share memory is attached, the tables are shared from now on.");
  return true;
}

/// Lays into both segments, neither of which is complete, the tables that this client answers from.
void TolvarAPI::shareOwnTables() {
  const int held = readiness();
  if (held == 0) return;
  constexpr int kFirst = 0;
  if ((held & 1) != 0) {
    setHalf(kFirst, &MemoryHead::ip_usable, kMemoryStatusPending);
    ResizeIpBuffer(kFirst, m_ip_query_vec.size());
    writeTable(kFirst, m_ip_query_vec);
    setHalf(kFirst, &MemoryHead::ip_usable, kMemoryStatusReady);
  }
  if ((held & 2) != 0) {
    std::vector<ravel::CodeInfo> codes;
    for (const auto& map : m_code_query_map)
      for (const auto& entry : map) codes.push_back(entry.second);
    std::sort(codes.begin(), codes.end());
    setHalf(kFirst, &MemoryHead::code_usable, kMemoryStatusPending);
    makeRoomForCodes(kFirst, codes);
    writeCodes(kFirst, codes);
    setHalf(kFirst, &MemoryHead::code_usable, kMemoryStatusReady);
  }
  mirrorImage(kFirst, 1 - kFirst);
}

/// True when something lies behind a key that this process does not map: a segment that it could
/// make, but neither attach nor remove. Only who still holds the content can fill it.
bool TolvarAPI::strangersBehindKeys() const noexcept {
  for (int shm_index = 0; shm_index < 2; ++shm_index) {
    const int id = qel::ZU_Shm::idOf(m_shm_key[shm_index]);
    if (id >= 0 && id != m_shm[shm_index].id()) return true;
  }
  return false;
}

/// Does `prepare`, which makes room in the segments for a publication. False when the system has
/// refused that for as long as `retry` tells: the tables then stay in this process, as if the start
/// had found no segments, and whoever starts takes what is ready behind the keys. A refusal that is
/// new comes out, and the publication is tried again.
bool TolvarAPI::hasRoom(const tolvar::RetryBackoff& retry, const std::function<void()>& prepare) {
  try {
    prepare();
    return true;
  } catch (const qel::ZU_Exception& error) {
    // Only who made a segment may replace it by a larger one.
    const bool isRefusal = isWant(error) || error.getErrCode() == EPERM;
    if (!isRefusal || !retry.isLasting() || strangersBehindKeys()) throw;
    forgetSegments();
    m_internals->unshared = true;
    m_internals->imageLock.release();
    noteError(tolvar::Step::ShareMemory, error.what());
    TOLVAR_LOG(kLogError, __LINE__,
               "no room for the tables in share memory, they stay in this process until a "
               "publication finds some: "
                   << error.what());
  }
  return false;
}

/// Publishes the gathered table for this process alone.
void TolvarAPI::takeOverUnshared(std::size_t count) {
  tolvar::sortTable(&m_vIPProperty);
  m_tBegin = m_internals->clock.timeOfDay();
  const std::string digest = tolvar::contentDigest(m_vIPProperty);
  m_internals->buildRanges(m_vIPProperty);
  m_tEnd = m_internals->clock.timeOfDay();
  takeOverTable(m_vectorIP == &m_ip_vector_impl[0] ? 0 : 1, digest);
  TOLVAR_LOG(kLogInfo, __LINE__,
             "after total download complete, svr_ip_size=" << count << ", shm_ip_size=0, clt_md5="
                                                           << m_cltMd5);
}

void TolvarAPI::forgetSegments() noexcept {
  for (int shm_index = 0; shm_index < 2; ++shm_index) {
    m_shm[shm_index].detach();
    m_memory_head[shm_index] = MemoryHead();
    m_holder[shm_index] = MemoryHolder();
    m_ip_vector_impl[shm_index] = IPVector();
    for (int k = 0; k < tolvar::kCodeTables; ++k) m_code_vector_impl[k][shm_index] = CodeVector();
  }
}
