#include "tests/crash/crash_scenarios.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <stdexcept>
#include <utility>

#include "tests/support/plant.h"
#include "tests/support/raw_image.h"

namespace tolvar_test {
namespace {

constexpr Version kOld{1, 6, 2};
constexpr Version kNew{2, 5, 3};
constexpr Version kLarge{3, 13, 7};

constexpr std::size_t kRoomForRanges = 8;
constexpr std::size_t kRoomForNames = 4;
constexpr std::size_t kSlack = 1 << 15;

void plantEmpty(const ShmKeys& keys) {
  plantSegments(keys, smallCapacities(kRoomForRanges, kRoomForNames));
  CrashHost(keys).start();  // makes the size record
}

void startAndPublish(const ShmKeys& keys, const Version& version) {
  CrashHost host(keys);
  host.start();
  host.publish(version);
}

void plantOld(const ShmKeys& keys) {
  plantEmpty(keys);
  startAndPublish(keys, kOld);
}

void plantOldWithSlack(const ShmKeys& keys) {
  plantSegments(keys, smallCapacities(kRoomForRanges, kRoomForNames), kSlack);
  startAndPublish(keys, kOld);
}

void plantOldInFullSize(const ShmKeys& keys) {
  plantSegments(keys, fullSizeCapacities(kRoomForRanges, kRoomForNames));
  startAndPublish(keys, kOld);
}

void start(const ShmKeys& keys) { CrashHost(keys).start(); }

/// The mark of the third region's vector is wrong in segment `index`.
void damageMark(const ShmKeys& keys, int index) {
  RawSegment segment(keys.data0() + index);
  segment.write64(segment.regions()[2].block() + 16, 127);
}

/// The first range of segment `index` does not decode.
void damageRange(const ShmKeys& keys, int index) {
  RawSegment segment(keys.data0() + index);
  segment.write(segment.regions()[0].node(0) + 8, "\xff\xff\xff");
}

/// As a publisher leaves it that was killed while it wrote ranges over the first segment.
void leaveHalfWritten(const ShmKeys& keys) {
  RawSegment segment(keys.data0());
  segment.write32(0, 2);
  segment.write64(segment.regions()[0].block() + 24, 3);
}

void removeSegment(key_t key) {
  if (shmctl(RawSegment::idBehind(key), IPC_RMID, nullptr) != 0)
    throw std::runtime_error("shmctl failed");
}

/// A publisher whose segments are removed behind its back.
void publishAfterRemoval(const ShmKeys& keys) {
  CrashHost host(keys);
  host.start();
  removeSegment(keys.data0());
  removeSegment(keys.data1());
  host.publish(kNew);
}

/// Segments come, go, grow and are copied, statuses change.
bool outsideVectors(std::string_view what) {
  return what != "node" && !what.starts_with("vector ");
}

/// A segment, and what is done to it.
using Damage = std::pair<int, void (*)(const ShmKeys&, int)>;

/// A start that finds one segment damaged, and goes on with the other; or both, and lays them anew.
CrashScenario repair(const char* name, void (*plant)(const ShmKeys&),
                     const std::vector<Damage>& damages) {
  const bool oneIsWhole = damages.size() == 1;
  return {.name = name,
          .prepare =
              [plant, damages](const ShmKeys& keys) {
                plant(keys);
                for (const auto& [segment, damage] : damages) damage(keys, segment);
              },
          .act = start,
          .versions = oneIsWhole ? std::vector<Version>{kOld} : std::vector<Version>{},
          .staysReady = oneIsWhole,
          .stride = 5,
          .undamaged = false};
}

std::vector<CrashScenario> all() {
  const auto publishNew = [](const ShmKeys& keys) { startAndPublish(keys, kNew); };
  const auto publishLarge = [](const ShmKeys& keys) { startAndPublish(keys, kLarge); };
  return {
      {"FirstPublication", plantEmpty, publishNew, {kNew}, false},
      {"SecondPublication", plantOld, publishNew, {kOld, kNew}},
      {"NamesOnly",
       plantOld,
       [](const ShmKeys& keys) {
         CrashHost host(keys);
         host.start();
         host.publishNames(kNew);
       },
       {kOld, kNew}},
      {"TwoPublicationsOfOneProcess",
       plantOld,
       [](const ShmKeys& keys) {
         CrashHost host(keys);
         host.start();
         host.publish(kNew);
         host.publish(kOld);
       },
       {kOld, kNew}},
      {"PublicationAfterAKilledOne",
       [](const ShmKeys& keys) {
         plantOld(keys);
         leaveHalfWritten(keys);
       },
       publishNew,
       {kOld, kNew}},
      {"GrowthInPlace", plantOldWithSlack, publishLarge, {kOld, kLarge}, true, 3},
      {"GrowthOfTheSegments",
       plantOldInFullSize,
       publishLarge,
       {kOld, kLarge},
       true,
       5,
       outsideVectors},
      {"InitialLaying", [](const ShmKeys&) {}, start, {}, false, 5},
      repair("RepairOfTheFirstSegment", plantOldInFullSize, {{0, damageMark}}),
      repair("RepairOfTheSecondSegment", plantOldInFullSize, {{1, damageMark}}),
      repair("RepairOfARange", plantOldInFullSize, {{0, damageRange}}),
      repair("RepairOfASmallSegment", plantOld, {{0, damageMark}}),
      repair("RepairOfBothSegments", plantOldInFullSize, {{0, damageMark}, {1, damageRange}}),
      {"PublicationOntoRemovedSegments",
       plantOldInFullSize,
       publishAfterRemoval,
       {kOld, kNew},
       false,
       5,
       outsideVectors},
  };
}

}  // namespace

const std::vector<CrashScenario>& crashScenarios() {
  static const std::vector<CrashScenario> scenarios = all();
  return scenarios;
}

}  // namespace tolvar_test
