#include <algorithm>

#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/image_codec.h"
#include "src/segment_layout.h"

void TolvarAPI::totalWriteData2Shm() {
  const tolvar::ImageHold hold(m_internals->imageLock);
  lockImage();
  const int target = m_vectorIP == &m_ip_vector_impl[0] ? 1 : 0;
  const std::size_t count = m_vIPProperty.size();
  TOLVAR_LOG(kLogDebug, __LINE__, "before sort. m_vIPProperty.size = " << count);

  beginPublication(target, &MemoryHead::ip_usable);
  ResizeIpBuffer(target, count);
  m_ip_vector_impl[target].clear();
  std::sort(m_vIPProperty.begin(), m_vIPProperty.end());
  // Built before anything is announced: when memory runs out here, the old table keeps answering.
  m_internals->buildRanges(m_vIPProperty);

  m_tBegin = m_internals->clock.timeOfDay();
  setHalf(target, &MemoryHead::ip_usable, kMemoryStatusPending);
  const std::string digest = writeRanges(target);
  setHalf(target, &MemoryHead::ip_usable, kMemoryStatusReady);
  m_tEnd = m_internals->clock.timeOfDay();

  takeOverTable(target, digest);

  const int other = 1 - target;
  setPending(other);
  ResizeIpBuffer(other, count);
  mirrorImage(target, other);
  TOLVAR_LOG(kLogInfo, __LINE__,
             "after total download complete, svr_ip_size=" << count << ", shm_ip_size="
                                                           << m_vectorIP->getMaxIndex()
                                                           << ", clt_md5=" << m_cltMd5);
}

std::string TolvarAPI::writeRanges(int target) {
  tolvar::ContentDigest digest;
  for (const ravel::IPProperty& property : m_vIPProperty) {
    const ravel::IPAttribute range = tolvar::toAttribute(property);
    digest.add(range);
    try {
      tolvar::appendNode(range, &m_ip_vector_impl[target]);
    } catch (const memVectorException& error) {
      TOLVAR_LOG(kLogError, __LINE__,
                 "TolvarAPI::totalWriteData2Shm() catch memVectorException: " << error.what());
    }
  }
  return digest.finish();
}

void TolvarAPI::takeOverTable(int target, const std::string& digest) {
  Lock hold(*this);
  m_ip_query_vec = std::move(m_vIPProperty);
  m_vIPProperty.clear();
  m_internals->publishRanges(m_ip_query_vec.size(), digest);
  m_internals->tableTakenOver = true;
  m_vectorIP = &m_ip_vector_impl[target];
  m_cltMd5 = digest;
  announceReady(1);
}

void TolvarAPI::CalculateMd5FromShareMemory() { takeDigest(tolvar::decodeRanges(*m_vectorIP)); }

void TolvarAPI::takeDigest(const std::vector<ravel::IPAttribute>& ranges) {
  const std::string digest = tolvar::contentDigest(ranges);
  {
    Lock hold(*this);
    m_cltMd5 = digest;
  }
  m_internals->noteDigest(digest);
  TOLVAR_LOG(
      kLogDebug, __LINE__,
      "ip_size=" << ranges.size() << ", mem_len=" << 36 * ranges.size() << ", md5=" << digest);
}

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

void TolvarAPI::mirrorImage(int from, int to) {
  // Only halves that are complete in the source may be announced: on a cold start the other half is
  // still empty, and another process would take an empty table for a good one.
  MemoryHead announced;
  ReadMemoryHead(from, &announced);
  copyImage(from, to, announced);
  m_internals->imagesInSync = true;
}
