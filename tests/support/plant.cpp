#include "tests/support/plant.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace tolvar_test {
namespace {

constexpr std::size_t kHead = 16;
constexpr std::size_t kRegionHead = 8 + 32;
constexpr std::size_t kNode = 128;
constexpr std::size_t kRealSegment = 73695648;

std::size_t bytesOf(const Capacities& capacities) {
  std::size_t bytes = kHead;
  for (const std::size_t nodes : capacities) bytes += kRegionHead + nodes * kNode;
  return bytes;
}

}  // namespace

Capacities smallCapacities(std::size_t ranges, std::size_t names) {
  Capacities capacities;
  capacities.fill(names);
  capacities[0] = ranges;
  return capacities;
}

Capacities fullSizeCapacities(std::size_t ranges, std::size_t names) {
  Capacities capacities = smallCapacities(ranges, names);
  capacities[8] += (kRealSegment - bytesOf(capacities)) / kNode + 1;
  return capacities;
}

void plantSegments(const ShmKeys& keys, const Capacities& capacities, std::size_t slack) {
  for (const key_t key : {keys.data0(), keys.data1()}) {
    const int id = shmget(key, bytesOf(capacities) + slack, IPC_CREAT | IPC_EXCL | 0660);
    if (id < 0) throw std::runtime_error("shmget failed");
    void* const at = shmat(id, nullptr, 0);
    if (at == reinterpret_cast<void*>(-1)) throw std::runtime_error("shmat failed");
    char* region = static_cast<char*>(at) + kHead;
    for (const std::size_t nodes : capacities) {
      const std::uint64_t size = 32 + nodes * kNode;
      const std::uint64_t words[] = {size, size, nodes, kNode, 0};
      std::memcpy(region, words, sizeof words);
      region += sizeof(std::uint64_t) + size;
    }
    shmdt(at);
  }
}

void plantSmallSegments(const ShmKeys& keys, std::size_t ranges, std::size_t names) {
  plantSegments(keys, smallCapacities(ranges, names));
}

}  // namespace tolvar_test
