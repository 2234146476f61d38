#include "tools/tolvar/shm_removal.h"

#include <sys/ipc.h>

#include <cerrno>
#include <memory>

#include "include/segment_types.h"
#include "platform/exception.h"
#include "platform/interprocess_lock.h"
#include "platform/system_calls.h"
#include "tools/tolvar/shm_images.h"

namespace tolvar::tools {
namespace {

/// A start or a publication that is under way is waited for this long.
constexpr int kLockMillis = 3000;

/// A size record that its maker had no time to fill.
bool isEmptyRecord(const SegmentSlot& slot) { return slot.record->bytes == sizeof(ShmSize); }

std::string foreignOnes(const ImageSlots& image) {
  std::string text;
  for (std::size_t i = 0; i < image.segments.size(); ++i) {
    const SegmentSlot& slot = image.segments[i];
    if (slot.state != SegmentSlot::State::Foreign) continue;
    if (i == 2 && image.anyOurs() && isEmptyRecord(slot)) continue;
    text += "the segment behind key " + formatKey(slot.key) + " (" +
            std::to_string(slot.record->bytes) + " bytes) is not ours; nothing was removed\n";
  }
  return text;
}

std::string attachedOnes(const ImageSlots& image) {
  std::string text;
  for (const SegmentSlot& slot : image.segments) {
    if (!slot.record || slot.record->attached == 0) continue;
    text += "the segment behind key " + formatKey(slot.key) + " is attached " +
            std::to_string(slot.record->attached) + " times";
    for (std::size_t i = 0; i < slot.processes.size(); ++i)
      text += (i == 0 ? ", by " : " ") + std::to_string(slot.processes[i]);
    text += "\n";
  }
  if (!text.empty()) text += "nothing was removed; end these processes first, or use --force\n";
  return text;
}

/// The rest of the removal, under the lock if it could be had.
Removal removeSegments(const ImageSlots& image, bool withLock) {
  Removal removal;
  for (const SegmentSlot& slot : image.segments) {
    if (slot.state == SegmentSlot::State::Missing) continue;
    const int status = qel::systemCalls().shmctl(slot.record->id, IPC_RMID, nullptr);
    if (status != 0 && errno != EIDRM && errno != EINVAL)
      throw qel::ZU_Exception(
          removal.text + "the segment behind key " + formatKey(slot.key) + " cannot be removed",
          errno);
    removal.text += "removed key " + formatKey(slot.key) + "\n";
  }
  // Taken away from its holder, it would let two publishers in.
  const auto lock = qel::semaphoreBehind(image.segments[2].key);
  if (withLock && lock) qel::systemCalls().semctl(lock->id, 0, IPC_RMID, nullptr);
  removal.done = true;
  return removal;
}

}  // namespace

Removal removeImage(const ImageKeys& keys, bool force) {
  {
    // Before the lock is asked for: it must not be made next to somebody else's segments.
    ImageSlots before;
    openImage(keys, &before);
    const std::string foreign = foreignOnes(before);
    if (!foreign.empty()) return {false, foreign};
    if (!before.anyOurs())
      throw qel::ZU_Exception("there is no image behind the keys " + formatKeys(keys));
  }
  qel::InterprocessLock lock;
  const bool held = lock.acquire(keys[2], kLockMillis);
  if (!held && !force)
    return {false,
            "a process holds the image's lock: it starts or publishes; nothing was removed\n"};
  const auto image = std::make_unique<ImageSlots>();
  openImage(keys, image.get());
  const std::string foreign = foreignOnes(*image);
  if (!foreign.empty()) return {false, foreign};
  const std::string attached = attachedOnes(*image);
  if (!attached.empty() && !force) return {false, attached};
  return removeSegments(*image, held);
}

}  // namespace tolvar::tools
