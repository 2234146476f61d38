#include <cstring>

#include "include/segment_types.h"
#include "platform/assertion.h"
#include "platform/shared_write_point.h"

void ProlatePointer::ReSet(void* ptr) {
  if (ptr == nullptr) {
    qel::assertionFailed("ptr != __null", "TolvarAPI", __LINE__,
                         "void ProlatePointer::ReSet(void*)");
  }
  std::uint64_t size = 0;
  std::memcpy(&size, ptr, sizeof size);
  m_ptr = ptr;
  m_size = size;
  m_data = static_cast<char*>(ptr) + sizeof size;
}

void ProlatePointer::ReSet(void* data, std::size_t size) {
  if (data == nullptr) {
    qel::assertionFailed("data != __null", "TolvarAPI", __LINE__,
                         "void ProlatePointer::ReSet(void*, size_t)");
  }
  const std::uint64_t word = size;
  m_data = data;
  m_size = size;
  m_ptr = static_cast<char*>(data) - sizeof word;
  qel::sharedWritePoint("size word");
  std::memcpy(m_ptr, &word, sizeof word);
}
