#include "tests/crash/image_copy.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace tolvar_test {
namespace {

constexpr std::size_t kPageBytes = 4096;

char* attach(int id) {
  void* const at = shmat(id, nullptr, 0);
  if (at == reinterpret_cast<void*>(-1)) throw std::runtime_error("shmat failed");
  return static_cast<char*>(at);
}

}  // namespace

ImageCopy::ImageCopy(const ShmKeys& keys) : _keys(keys) {
  for (int i = 0; i < 3; ++i) {
    const int id = shmget(keys.data0() + i, 0, 0);
    if (id < 0) continue;
    Segment& segment = _segments[static_cast<std::size_t>(i)];
    shmid_ds description{};
    if (shmctl(id, IPC_STAT, &description) != 0) throw std::runtime_error("shmctl failed");
    segment.exists = true;
    segment.size = description.shm_segsz;
    const char* const bytes = attach(id);
    for (std::size_t offset = 0; offset < segment.size; offset += kPageBytes) {
      const std::size_t length = std::min(kPageBytes, segment.size - offset);
      if (std::any_of(bytes + offset, bytes + offset + length, [](char c) { return c != 0; }))
        segment.pages.push_back({offset, std::string(bytes + offset, length)});
    }
    shmdt(bytes);
  }
}

void ImageCopy::restore() const {
  _keys.removeSegments();
  for (int i = 0; i < 3; ++i) {
    const Segment& segment = _segments[static_cast<std::size_t>(i)];
    if (!segment.exists) continue;
    const int id = shmget(_keys.data0() + i, segment.size, IPC_CREAT | IPC_EXCL | 0660);
    if (id < 0) throw std::runtime_error("shmget failed");
    char* const bytes = attach(id);
    for (const Page& page : segment.pages)
      std::memcpy(bytes + page.offset, page.bytes.data(), page.bytes.size());
    shmdt(bytes);
  }
}

}  // namespace tolvar_test
