#include "platform/shm.h"

#include <cerrno>
#include <string>
#include <utility>

#include "platform/exception.h"
#include "platform/shared_write_point.h"
#include "platform/system_calls.h"

namespace qel {
namespace {

constexpr int kMode = 0660;

[[noreturn]] void failRemoval(key_t key, int error) {
  const char* const help =
      error == EPERM ? ", whose segment another user made, who alone may replace it; run as that "
                       "user or as root, or use other keys"
                     : "";
  throw ZU_Exception("[ZU_Shm::del]: shmctl failed for key " + std::to_string(key) + help, error);
}

[[noreturn]] void fail(const char* call, key_t key, int error) {
  const char* const help =
      error == EACCES ? ", whose segment belongs to another user; run as that user or as root, or "
                        "use other keys"
                      : "";
  throw ZU_Exception(
      "[ZU_Shm::init]: " + std::string(call) + " failed for key " + std::to_string(key) + help,
      error);
}

}  // namespace

ZU_Shm::~ZU_Shm() {
  if (_owner && _id >= 0) systemCalls().shmctl(_id, IPC_RMID, nullptr);
  detach();
}

void ZU_Shm::init(std::size_t size, key_t key, bool owner) {
  detach();
  _owner = owner;
  // Another process may create or remove the segment between two calls, so both are tried again.
  for (int attempt = 0; attempt < 16; ++attempt) {
    _created = false;
    int id = systemCalls().shmget(key, 0, 0);
    if (id < 0 && errno == ENOENT) {
      sharedWritePoint("new segment");
      id = systemCalls().shmget(key, size, IPC_CREAT | IPC_EXCL | kMode);
      if (id < 0 && errno == EEXIST) continue;
      _created = id >= 0;
    }
    if (id < 0) fail("shmget", key, errno);
    try {
      map(id, key, 0);
      return;
    } catch (const ZU_Exception& error) {
      const bool removedMeanwhile = error.getErrCode() == EIDRM || error.getErrCode() == EINVAL;
      if (_created) systemCalls().shmctl(id, IPC_RMID, nullptr);
      _created = false;
      if (!removedMeanwhile) throw;
    }
  }
  fail("shmget", key, EIDRM);
}

int ZU_Shm::idOf(key_t key) noexcept { return systemCalls().shmget(key, 0, 0); }

bool ZU_Shm::attach(key_t key, bool readOnly) {
  detach();
  _owner = false;
  _created = false;
  const int id = systemCalls().shmget(key, 0, 0);
  if (id < 0 && errno == ENOENT) return false;
  if (id < 0) fail("shmget", key, errno);
  map(id, key, readOnly ? SHM_RDONLY : 0);
  return true;
}

void ZU_Shm::map(int id, key_t key, int flags) {
  void* address = systemCalls().shmat(id, nullptr, flags);
  if (address == reinterpret_cast<void*>(-1)) fail("shmat", key, errno);
  shmid_ds description{};
  if (systemCalls().shmctl(id, IPC_STAT, &description) != 0) {
    const int error = errno;
    systemCalls().shmdt(address);
    fail("shmctl", key, error);
  }
  _id = id;
  _key = key;
  _address = address;
  _size = description.shm_segsz;
}

void ZU_Shm::remove() {
  sharedWritePoint("removed segment");
  if (_id < 0 || systemCalls().shmctl(_id, IPC_RMID, nullptr) == 0) return;
  const int error = errno;
  if (error != EIDRM && error != EINVAL) failRemoval(_key, error);
}

void ZU_Shm::del() {
  try {
    remove();
  } catch (const ZU_Exception&) {
    detach();
    throw;
  }
  detach();
}

void ZU_Shm::swap(ZU_Shm& other) noexcept {
  std::swap(_owner, other._owner);
  std::swap(_created, other._created);
  std::swap(_id, other._id);
  std::swap(_key, other._key);
  std::swap(_address, other._address);
  std::swap(_size, other._size);
}

void ZU_Shm::detach() noexcept {
  if (_address != nullptr) systemCalls().shmdt(_address);
  _address = nullptr;
  _size = 0;
  _id = -1;
}

}  // namespace qel
