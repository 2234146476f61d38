#include "tools/tolvar/shm_images.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "include/segment_types.h"
#include "platform/exception.h"

namespace tolvar::tools {
namespace {

/// One process makes the three segments of an image one after another, within this many seconds.
constexpr std::time_t kMadeTogether = 5;

/// A damaged segment is still ours when it is as large as the size record says.
bool isOurData(const void* segment, std::size_t bytes, std::uint64_t recordedBytes) {
  return isLaidSegment(segment, bytes) || (recordedBytes != 0 && bytes == recordedBytes);
}

/// Attaches read-only. False when the segment went away or was replaced.
bool attachTo(const qel::ShmRecord& record, qel::ZU_Shm* shm) {
  return shm->attach(record.key, true) && shm->id() == record.id;
}

using Distance = std::tuple<bool, bool, std::int64_t>;

/// How little a size record and a data segment look like parts of one image; less is better. Keys
/// are mostly chosen in the order in which they are passed, so the record's is the largest.
Distance distanceOf(const FoundSegment& sizes, const FoundSegment& data) {
  const bool together = sizes.record.creator == data.record.creator &&
                        std::abs(sizes.record.changed - data.record.changed) <= kMadeTogether;
  const std::int64_t apart = std::int64_t{sizes.record.key} - std::int64_t{data.record.key};
  return {!together, apart < 0, std::abs(apart)};
}

/// Attaches to every segment in turn.
class HostScan {
 public:
  explicit HostScan(std::size_t* unreadable) : _unreadable(unreadable) {}

  std::vector<FoundSegment> run() {
    const std::vector<qel::ShmRecord> all = qel::listSegments(_unreadable);
    for (const qel::ShmRecord& record : all) look(record, &HostScan::takeSizeRecord);
    for (const qel::ShmRecord& record : all) look(record, &HostScan::takeData);
    for (FoundSegment& segment : _found)
      segment.processes = qel::processesMapping(segment.record.id);
    return std::move(_found);
  }

 private:
  using Taker = void (HostScan::*)(const qel::ShmRecord&, const void*);

  void look(const qel::ShmRecord& record, Taker take) {
    const bool isRecordSized = record.bytes == sizeof(ShmSize);
    if (isRecordSized != (take == &HostScan::takeSizeRecord)) return;
    if (record.bytes < kHeadBytes) return;
    try {
      qel::ZU_Shm shm;
      if (attachTo(record, &shm)) (this->*take)(record, shm.getPointer());
    } catch (const qel::ZU_Exception&) {
      ++*_unreadable;
    }
  }

  void takeSizeRecord(const qel::ShmRecord& record, const void* content) {
    const std::uint64_t recorded = recordedSize(content, record.bytes);
    if (recorded == 0) return;
    FoundSegment segment;
    segment.record = record;
    segment.kind = FoundSegment::Kind::SizeRecord;
    segment.recordedBytes = recorded;
    _found.push_back(segment);
  }

  void takeData(const qel::ShmRecord& record, const void* content) {
    const bool recorded =
        std::any_of(_found.begin(), _found.end(), [&](const FoundSegment& segment) {
          return segment.kind == FoundSegment::Kind::SizeRecord &&
                 segment.recordedBytes == record.bytes;
        });
    if (!recorded && !isLaidSegment(content, record.bytes)) return;
    const SegmentReport report = inspectLayout(content, record.bytes);
    FoundSegment segment;
    segment.record = record;
    segment.ipStatus = report.ipStatus;
    segment.codeStatus = report.codeStatus;
    _found.push_back(segment);
  }

  std::size_t* _unreadable;
  std::vector<FoundSegment> _found;
};

void lookBehind(SegmentSlot* slot) {
  const auto record = qel::segmentBehind(slot->key);
  if (!record || !attachTo(*record, &slot->shm)) return;
  slot->record = record;
  slot->processes = qel::processesMapping(record->id);
  // This process maps it by now.
  std::erase(slot->processes, getpid());
  slot->state = SegmentSlot::State::Foreign;
}

void checkKeys(const ImageKeys& keys) {
  for (const key_t key : keys)
    if (key == 0) throw qel::ZU_Exception("0 is no shared-memory key of an image");
  if (keys[0] == keys[1] || keys[0] == keys[2] || keys[1] == keys[2])
    throw qel::ZU_Exception("the three shared-memory keys of an image must differ");
}

}  // namespace

std::vector<FoundImage> groupSegments(const std::vector<FoundSegment>& segments) {
  struct Pair {
    Distance distance;
    std::size_t record;
    std::size_t data;
  };
  std::vector<Pair> pairs;
  for (std::size_t r = 0; r < segments.size(); ++r) {
    if (segments[r].kind != FoundSegment::Kind::SizeRecord) continue;
    for (std::size_t d = 0; d < segments.size(); ++d)
      if (segments[d].kind == FoundSegment::Kind::Data)
        pairs.push_back({distanceOf(segments[r], segments[d]), r, d});
  }
  std::stable_sort(pairs.begin(), pairs.end(),
                   [](const Pair& a, const Pair& b) { return a.distance < b.distance; });

  std::vector<std::vector<std::size_t>> members(segments.size());
  std::vector<bool> taken(segments.size(), false);
  for (const Pair& pair : pairs) {
    if (taken[pair.data] || members[pair.record].size() == 2) continue;
    members[pair.record].push_back(pair.data);
    taken[pair.data] = true;
  }
  std::vector<FoundImage> images;
  for (std::size_t i = 0; i < segments.size(); ++i) {
    if (segments[i].kind == FoundSegment::Kind::Data && taken[i]) continue;
    FoundImage image;
    if (segments[i].kind == FoundSegment::Kind::SizeRecord) {
      image.sizeRecord = segments[i];
      std::sort(members[i].begin(), members[i].end(), [&](std::size_t a, std::size_t b) {
        return segments[a].record.key < segments[b].record.key;
      });
      for (const std::size_t member : members[i]) image.data.push_back(segments[member]);
    } else {
      image.data.push_back(segments[i]);
    }
    images.push_back(std::move(image));
  }
  return images;
}

std::vector<FoundImage> findImages(std::size_t* unreadable) {
  return groupSegments(HostScan(unreadable).run());
}

bool ImageSlots::anyOurs() const noexcept {
  return std::any_of(segments.begin(), segments.end(), [](const SegmentSlot& slot) {
    return slot.state == SegmentSlot::State::Ours;
  });
}

void openImage(const ImageKeys& keys, ImageSlots* image) {
  checkKeys(keys);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    image->segments[i].key = keys[i];
    lookBehind(&image->segments[i]);
  }
  SegmentSlot& sizes = image->segments[2];
  if (sizes.state == SegmentSlot::State::Foreign)
    image->recordedBytes = recordedSize(sizes.shm.getPointer(), sizes.shm.size());
  if (image->recordedBytes != 0) sizes.state = SegmentSlot::State::Ours;
  for (std::size_t i = 0; i < 2; ++i) {
    SegmentSlot& slot = image->segments[i];
    if (slot.state == SegmentSlot::State::Foreign &&
        isOurData(slot.shm.getPointer(), slot.shm.size(), image->recordedBytes))
      slot.state = SegmentSlot::State::Ours;
  }
  image->lock = qel::semaphoreBehind(keys[2]);
}

}  // namespace tolvar::tools
