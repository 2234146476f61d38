#include "platform/shm_directory.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/exception.h"
#include "platform/system_calls.h"

namespace qel {
namespace {

ShmRecord recordOf(int id, const shmid_ds& data) {
  ShmRecord record;
  record.id = id;
  record.key = data.shm_perm.__key;
  record.bytes = data.shm_segsz;
  record.mode = data.shm_perm.mode & 0777u;
  record.owner = data.shm_perm.uid;
  record.creator = data.shm_cpid;
  record.lastProcess = data.shm_lpid;
  record.attached = data.shm_nattch;
  record.lastAttach = data.shm_atime;
  record.lastDetach = data.shm_dtime;
  record.changed = data.shm_ctime;
  return record;
}

/// True when a line of a mappings file is about the segment. Such a line reads
/// "begin-end permissions offset device inode /SYSV0000abcd (deleted)"; the inode is the
/// identifier.
bool mapsSegment(const std::string& line, int segmentId) {
  if (line.find(" /SYSV") == std::string::npos) return false;
  std::istringstream in(line);
  std::string skipped;
  long inode = -1;
  in >> skipped >> skipped >> skipped >> skipped >> inode;
  return inode == segmentId;
}

bool processMaps(const std::filesystem::path& directory, int segmentId) {
  std::ifstream maps(directory / "maps");
  std::string line;
  while (std::getline(maps, line))
    if (mapsSegment(line, segmentId)) return true;
  return false;
}

}  // namespace

std::vector<ShmRecord> listSegments(std::size_t* refused) {
  std::size_t others = 0;
  shm_info usage{};
  const int highest = systemCalls().shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&usage));
  if (highest < 0) throw ZU_Exception("[listSegments]: shmctl failed", errno);
  std::vector<ShmRecord> found;
  for (int index = 0; index <= highest; ++index) {
    shmid_ds data{};
    const int id = systemCalls().shmctl(index, SHM_STAT, &data);
    if (id < 0) {  // an empty slot, or none of this user's business
      if (errno == EACCES) ++others;
      continue;
    }
    const ShmRecord record = recordOf(id, data);
    if (record.key != IPC_PRIVATE) found.push_back(record);
  }
  std::sort(found.begin(), found.end(),
            [](const ShmRecord& a, const ShmRecord& b) { return a.key < b.key; });
  if (refused != nullptr) *refused = others;
  return found;
}

std::optional<ShmRecord> segmentBehind(key_t key) {
  const int id = systemCalls().shmget(key, 0, 0);
  if (id < 0 && errno == ENOENT) return std::nullopt;
  shmid_ds data{};
  if (id < 0 || systemCalls().shmctl(id, IPC_STAT, &data) != 0) {
    if (errno == EIDRM || errno == EINVAL) return std::nullopt;  // removed meanwhile
    throw ZU_Exception("the segment behind key " + std::to_string(key) + " cannot be looked at",
                       errno);
  }
  return recordOf(id, data);
}

std::vector<pid_t> processesMapping(int segmentId) {
  std::vector<pid_t> found;
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    pid_t process = 0;
    const auto [stop, fault] = std::from_chars(name.data(), name.data() + name.size(), process);
    if (fault != std::errc() || stop != name.data() + name.size()) continue;
    if (processMaps(entry->path(), segmentId)) found.push_back(process);
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::optional<SemaphoreRecord> semaphoreBehind(key_t key) noexcept {
  SemaphoreRecord record;
  record.id = systemCalls().semget(key, 0, 0);
  if (record.id < 0) return std::nullopt;
  semid_ds data{};
  if (systemCalls().semctl(record.id, 0, IPC_STAT, &data) != 0 || data.sem_nsems != 1)
    return std::nullopt;
  const int value = systemCalls().semctl(record.id, 0, GETVAL, nullptr);
  if (value < 0) return std::nullopt;
  record.held = value != 0;
  record.lastProcess = systemCalls().semctl(record.id, 0, GETPID, nullptr);
  record.lastChange = data.sem_otime;
  return record;
}

}  // namespace qel
