#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/image_codec.h"
#include "src/range_codec.h"
#include "src/segment_layout.h"
#include "src/side_task.h"

void TolvarAPI::totalWriteData2Shm() {
  const tolvar::Retirement retirement(*m_internals);
  const tolvar::ImageHold hold(m_internals->imageLock);
  bool shared = lockImage();
  const int target = m_vectorIP == &m_ip_vector_impl[0] ? 1 : 0;
  const std::size_t count = m_vIPProperty.size();
  TOLVAR_LOG(kLogDebug, __LINE__, "before sort. m_vIPProperty.size = " << count);

  if (shared) {
    shared = hasRoom(m_internals->downloadRetry, [&] {
      beginPublication(target, &MemoryHead::ip_usable);
      ResizeIpBuffer(target, count);
    });
  }
  if (!shared) return takeOverUnshared(count);

  tolvar::sortTable(&m_vIPProperty);

  m_tBegin = m_internals->clock.timeOfDay();
  setHalf(target, &MemoryHead::ip_usable, kMemoryStatusPending);
  tolvar::SideTask index([this] { m_internals->buildRanges(m_vIPProperty); });
  const std::string digest = writeTable(target, m_vIPProperty);
  // Built before anything is announced: when memory runs out here, the old table keeps answering.
  index.finish();
  setHalf(target, &MemoryHead::ip_usable, kMemoryStatusReady);
  m_tEnd = m_internals->clock.timeOfDay();

  takeOverTable(target, digest);

  const int other = 1 - target;
  setPending(other);
  mirrorImage(target, other);
  TOLVAR_LOG(kLogInfo, __LINE__,
             "after total download complete, svr_ip_size=" << count << ", shm_ip_size="
                                                           << m_vectorIP->getMaxIndex()
                                                           << ", clt_md5=" << m_cltMd5);
}

/// Writes ranges over whatever the target's vector held; answers their digest.
std::string TolvarAPI::writeTable(int target, const ravel::vIPProperty& ranges) {
  IPVector& nodes = m_ip_vector_impl[target];
  tolvar::ContentDigest digest;
  nodes.rewind();
  for (const ravel::IPProperty& range : ranges) {
    digest.add(range);
    try {
      tolvar::encodeRange(range, nodes.beginNode());
      nodes.endNode();
    } catch (const memVectorException& error) {
      TOLVAR_LOG(kLogError, __LINE__,
                 "TolvarAPI::totalWriteData2Shm() catch memVectorException: " << error.what());
    }
  }
  nodes.clearRest();
  return digest.finish();
}

void TolvarAPI::takeOverTable(int target, const std::string& digest) {
  // What may find no memory comes first: a table half taken over would be an empty one next time.
  std::string own = digest;
  std::string shown = digest;
  Lock hold(*this);
  m_ip_query_vec = std::move(m_vIPProperty);
  m_vIPProperty.clear();
  m_internals->publishRanges(m_ip_query_vec.size(), std::move(shown));
  m_internals->tableTakenOver = true;
  m_vectorIP = &m_ip_vector_impl[target];
  m_cltMd5 = std::move(own);
  announceReady(1);
}

void TolvarAPI::CalculateMd5FromShareMemory() {
  const ravel::vIPProperty ranges = tolvar::decodeTable(*m_vectorIP);
  takeDigest(tolvar::contentDigest(ranges), ranges.size());
}

void TolvarAPI::takeDigest(const std::string& digest, std::size_t ranges) {
  {
    Lock hold(*this);
    m_cltMd5 = digest;
  }
  m_internals->noteImageDigest(digest);
  TOLVAR_LOG(kLogDebug, __LINE__,
             "ip_size=" << ranges << ", mem_len=" << 36 * ranges << ", md5=" << digest);
}
