#include "fuzz/segment_table.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>

#include "fuzz/require.h"
#include "platform/system_calls.h"

namespace tolvar_fuzz {
namespace {

struct Segment {
  key_t key = 0;  ///< 0 when it was removed and is only still mapped
  std::size_t size = 0;
  int attached = 0;
  std::unique_ptr<char[]> bytes;
};

std::map<int, Segment>& segments() {
  static std::map<int, Segment> all;
  return all;
}
int lastId = 0;
std::size_t largestSegment = 0;

int failWith(int error) {
  errno = error;
  return -1;
}

int make(key_t key, std::size_t size) {
  if (size > largestSegment) return failWith(ENOMEM);
  Segment segment;
  segment.key = key;
  segment.size = size;
  segment.bytes = std::make_unique<char[]>(size);
  segments()[++lastId] = std::move(segment);
  return lastId;
}

int getSegment(key_t key, std::size_t size, int flags) {
  for (const auto& [id, segment] : segments()) {
    if (segment.key != key) continue;
    if ((flags & IPC_CREAT) != 0 && (flags & IPC_EXCL) != 0) return failWith(EEXIST);
    return size > segment.size ? failWith(EINVAL) : id;
  }
  return (flags & IPC_CREAT) != 0 ? make(key, size) : failWith(ENOENT);
}

void* attachSegment(int id, const void* /*address*/, int /*flags*/) {
  const auto found = segments().find(id);
  if (found == segments().end()) {
    errno = EINVAL;
    return reinterpret_cast<void*>(-1);
  }
  ++found->second.attached;
  return found->second.bytes.get();
}

void removeIfUnused(std::map<int, Segment>::iterator at) {
  if (at->second.key == 0 && at->second.attached == 0) segments().erase(at);
}

int detachSegment(const void* address) {
  for (auto at = segments().begin(); at != segments().end(); ++at) {
    if (at->second.bytes.get() != address) continue;
    --at->second.attached;
    removeIfUnused(at);
    return 0;
  }
  const bool isAttached = false;
  FUZZ_REQUIRE(isAttached);
  return failWith(EINVAL);
}

int controlSegment(int id, int command, shmid_ds* data) {
  const auto found = segments().find(id);
  if (found == segments().end()) return failWith(EINVAL);
  if (command == IPC_RMID) {
    found->second.key = 0;
    removeIfUnused(found);
  } else if (data != nullptr) {
    std::memset(data, 0, sizeof *data);
    data->shm_segsz = found->second.size;
    data->shm_nattch = static_cast<shmatt_t>(found->second.attached);
  }
  return 0;
}

}  // namespace

void installSegmentTable() {
  qel::SystemCalls& calls = qel::systemCalls();
  calls.shmget = getSegment;
  calls.shmat = attachSegment;
  calls.shmdt = detachSegment;
  calls.shmctl = controlSegment;
  calls.semget = [](key_t, int, int) { return 1; };
  calls.semtimedop = [](int, sembuf*, size_t, const timespec*) { return 0; };
  calls.semctl = [](int, int, int, semid_ds* data) {
    if (data != nullptr) data->sem_nsems = 1;
    return 0;
  };
}

void resetSegments(std::size_t largest) {
  for (const auto& [id, segment] : segments()) FUZZ_REQUIRE(segment.attached == 0);
  segments().clear();
  largestSegment = largest;
}

void plantSegment(key_t key, const std::string& content) {
  const int id = make(key, content.size());
  FUZZ_REQUIRE(id > 0);
  std::memcpy(segments()[id].bytes.get(), content.data(), content.size());
}

std::string segmentContent(key_t key) {
  for (const auto& [id, segment] : segments())
    if (segment.key == key) return std::string(segment.bytes.get(), segment.size);
  return {};
}

}  // namespace tolvar_fuzz
