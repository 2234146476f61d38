#include <algorithm>
#include <array>
#include <iterator>
#include <new>

#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/image_reader.h"
#include "src/segment_layout.h"

using tolvar::kCodeTables;
using tolvar::kHeadBytes;
using tolvar::kSizeWordBytes;

namespace {

/// Beyond this a stored size is taken for damage, in bytes (1 TiB).
constexpr std::size_t kMaxSegmentBytes = std::size_t{1} << 40;

void checkKeys(key_t key1, key_t key2, key_t key3) {
  if (key1 == 0 || key2 == 0 || key3 == 0) {
    throw qel::ZU_Exception(
        "shared-memory keys: shm_key_1, shm_key_2 and shm_key_3 must all be set to something other "
        "than 0");
  }
  if (key1 == key2 || key1 == key3 || key2 == key3) {
    throw qel::ZU_Exception(
        "shared-memory keys: shm_key_1, shm_key_2 and shm_key_3 must differ from one another");
  }
}

}  // namespace

std::size_t TolvarAPI::CalculateNextSize(std::size_t n) { return tolvar::nextPowerOfTwo(n); }

void TolvarAPI::InitializeShareMemory(key_t key1, key_t key2, key_t key3) {
  checkKeys(key1, key2, key3);
  m_shm_key[0] = key1;
  m_shm_key[1] = key2;
  m_shm_key[2] = key3;
  forgetSegments();
  try {
    beginWithImage();
  } catch (...) {
    // What is attached by now may be somebody else's. Nobody publishes into it, also when the host
    // goes on with `start`.
    forgetSegments();
    std::fill(std::begin(m_shm_key), std::end(m_shm_key), 0);
    throw;
  }
}

void TolvarAPI::beginWithImage() {
  refuseForeignRecord();
  const tolvar::Retirement retirement(*m_internals);
  const tolvar::ImageHold lockHold(m_internals->imageLock);
  m_internals->unshared = !lockImageForStart();

  int ready = -1;
  tolvar::ImageContent image;
  if (!m_internals->unshared) attachForStart(&ready, &image);
  if (!m_internals->unshared) noteShared();
  // Whatever the other segment holds, it need not be the image chosen here.
  m_internals->imagesInSync = ready < 0;

  const int ready_shm_index = std::max(ready, 0);
  if (ready >= 0) {
    TOLVAR_LOG(kLogDebug, __LINE__,
               "choose a ready share memory: " << ready
                                               << "the param is:" << m_memory_head[ready].ip_usable
                                               << "|" << m_memory_head[ready].code_usable);
    useSegment(ready);
    takeOverImage(image);
  } else {
    TOLVAR_LOG(kLogDebug, __LINE__,
               "all share memory is NOT usable, use first block: " << ready_shm_index);
  }
  TOLVAR_LOG(kLogDebug, __LINE__,
             "choose share memory index done. ready_shm_index = " << ready_shm_index);
  useSegment(ready_shm_index);
  if (m_internals->unshared) forgetSegments();
}

/// The size that segments are to be made with, as the record says; without one that makes sense,
/// the default, which is then recorded.
std::size_t TolvarAPI::totalSize() {
  std::size_t total = 0;
  const bool recorded = ReadShareMemorySize(&total);
  if (!recorded || total < tolvar::segmentBytes(tolvar::defaultRegionSizes()) ||
      total > kMaxSegmentBytes) {
    total = tolvar::defaultSegmentBytes();
    WriteShareMemorySize(total);
    TOLVAR_LOG(kLogDebug, __LINE__, "GetShareMemorySize failed. use default shm_size.");
  }
  TOLVAR_LOG(kLogDebug, __LINE__, "total share memory size is " << (total >> 20) << "MB.");
  return total;
}

/// Attaches both segments, and lays those anew that are new or damaged. `*ready` becomes the first
/// that is ready, if any; its content goes into `*image` unless that is null.
void TolvarAPI::attachImage(int* ready, tolvar::ImageContent* image) {
  const std::size_t total = totalSize();
  for (int shm_index = 0; shm_index < 2; ++shm_index) {
    attachSegment(shm_index, total);
    bool connect_success = true;
    if (!m_shm[shm_index].iscreate()) {
      ReadMemoryHead(shm_index, &m_memory_head[shm_index]);
      connect_success = connectRegions(shm_index);
      if (connect_success && *ready < 0 && m_memory_head[shm_index].ready()) {
        connect_success = image == nullptr || readImage(shm_index, image);
        if (connect_success) *ready = shm_index;
      }
      if (!connect_success) {
        m_memory_head[shm_index].ip_usable = kMemoryStatusUnknown;
        m_memory_head[shm_index].code_usable = kMemoryStatusUnknown;
        WriteMemoryHead(shm_index, m_memory_head[shm_index]);
        TOLVAR_LOG(kLogError, __LINE__,
                   "connect share memory failed, will recreate it. shm_index=" << shm_index);
      } else {
        TOLVAR_LOG(kLogDebug, __LINE__, "connect share memory success. shm_index=" << shm_index);
      }
    }
    if (m_shm[shm_index].iscreate() || !connect_success)
      layRegions(shm_index, total, connect_success);
  }
}

void TolvarAPI::attachSegment(int shm_index, std::size_t total) {
  qel::ZU_Shm& shm = m_shm[shm_index];
  const key_t key = m_shm_key[shm_index];
  try {
    shm.init(total, key);
  } catch (const qel::ZU_Exception& error) {
    if (total == tolvar::defaultSegmentBytes()) throw;
    TOLVAR_LOG(kLogError, __LINE__,
               "cannot create a segment of "
                   << total << " bytes, trying the default size: " << error.what());
    shm.init(tolvar::defaultSegmentBytes(), key);
  }
  if (shm.iscreate()) return;
  if (shm.size() < kHeadBytes ||
      (!tolvar::looksLikeDataSegment(shm.getPointer(), shm.size()) && shm.size() != total)) {
    throw qel::ZU_Exception("the segment behind key " + std::to_string(key) + " (" +
                            std::to_string(shm.size()) +
                            " bytes) does not belong to this library; choose another key or remove "
                            "the segment");
  }
}

bool TolvarAPI::connectRegions(int shm_index) {
  const qel::ZU_Shm& shm = m_shm[shm_index];
  const tolvar::LayoutWalk walk = tolvar::walkLayout(shm.getPointer(), shm.size());
  if (!walk.fits) {
    TOLVAR_LOG(kLogError, __LINE__,
               "share memory is damaged. shm_index=" << shm_index << ", " << walk.problem);
    return false;
  }
  char* at = static_cast<char*>(shm.getPointer()) + kHeadBytes;
  MemoryHolder& holder = m_holder[shm_index];
  holder.ip_ptr.ReSet(at);
  bool connect_success = m_ip_vector_impl[shm_index].connect(holder.ip_ptr.Data());
  at += kSizeWordBytes + holder.ip_ptr.Size();
  for (int k = 0; k < kCodeTables; ++k) {
    holder.code_ptr[k].ReSet(at);
    connect_success &= m_code_vector_impl[k][shm_index].connect(holder.code_ptr[k].Data());
    at += kSizeWordBytes + holder.code_ptr[k].Size();
  }
  return connect_success;
}

bool TolvarAPI::readImage(int shm_index, tolvar::ImageContent* image) {
  try {
    std::array<const CodeVector*, kCodeTables> codes;
    for (int k = 0; k < kCodeTables; ++k)
      codes[static_cast<std::size_t>(k)] = &m_code_vector_impl[k][shm_index];
    *image = tolvar::readImage(m_ip_vector_impl[shm_index], codes);
    return true;
  } catch (const std::bad_alloc&) {
    throw;  // that is no fault of the image
  } catch (const std::exception& error) {
    TOLVAR_LOG(kLogError, __LINE__,
               "share memory is damaged. shm_index=" << shm_index << ", " << error.what());
    return false;
  }
}

void TolvarAPI::layRegions(int shm_index, std::size_t total, bool connect_success) {
  const tolvar::RegionSizes sizes = tolvar::defaultRegionSizes();
  qel::ZU_Shm& shm = m_shm[shm_index];
  if (shm.size() < tolvar::segmentBytes(sizes)) {
    const MemoryHead head = m_memory_head[shm_index];
    shm.del();
    shm.init(std::max(total, tolvar::segmentBytes(sizes)), m_shm_key[shm_index]);
    if (shm.size() < tolvar::segmentBytes(sizes)) {
      throw qel::ZU_Exception("another process made the segment behind key " +
                              std::to_string(m_shm_key[shm_index]) + " with " +
                              std::to_string(shm.size()) + " bytes");
    }
    WriteMemoryHead(shm_index, head);
  }
  ReadMemoryHead(shm_index, &m_memory_head[shm_index]);
  char* const segment = static_cast<char*>(shm.getPointer());
  const auto create = [fresh = shm.iscreate()](auto* vector, char* block, std::size_t size) {
    if (fresh) return vector->createInZeros(block, size);
    vector->create(block, size);
  };
  std::size_t offset = kHeadBytes + kSizeWordBytes;
  create(&m_ip_vector_impl[shm_index], segment + offset, sizes[0]);
  m_holder[shm_index].ip_ptr.ReSet(segment + offset, sizes[0]);
  offset += sizes[0];
  for (int k = 0; k < kCodeTables; ++k) {
    offset += kSizeWordBytes;
    char* const block = segment + offset;
    const std::size_t size = sizes[k + 1];
    TOLVAR_LOG(kLogInfo, __LINE__,
               "create code shm, shm_index="
                   << shm_index << ", code_index=" << k
                   << ", shm_address=" << static_cast<const void*>(segment)
                   << ", shm_total_size=" << total << ", shm_offset=" << offset
                   << ", address=" << static_cast<const void*>(block) << ", size=" << size);
    create(&m_code_vector_impl[k][shm_index], block, size);
    m_holder[shm_index].code_ptr[k].ReSet(block, size);
    offset += size;
  }
  TOLVAR_LOG(kLogDebug, __LINE__,
             "create share memory done. shm_index=" << shm_index << ", conncect_success="
                                                    << (connect_success ? 1 : 0));
}

void TolvarAPI::useSegment(int shm_index) {
  m_vectorIP = &m_ip_vector_impl[shm_index];
  for (int k = 0; k < kCodeTables; ++k) m_code_vector[k] = &m_code_vector_impl[k][shm_index];
}

void TolvarAPI::takeOverImage(tolvar::ImageContent& image) {
  m_internals->buildAll(std::move(image.index), std::move(image.names));
  takeDigest(image.digest, image.ranges.size());

  std::lock_guard<qel::ZU_ThreadMutex> hold(m_has_initialized_mutex);
  m_has_initialized = 3;
  m_ip_query_vec = std::move(image.ranges);
  std::move(std::begin(image.codes), std::end(image.codes), std::begin(m_code_query_map));
  m_internals->publishBuilt(m_ip_query_vec.size(), m_code_query_map);
  m_has_initialized_cond.broadcast();
}
