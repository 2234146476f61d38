#include "service/import_guard.h"
#include "tools/tolvar/shm_report.h"
#include "tools/tolvar/shm_values.h"

namespace tolvar::tools {
namespace {

constexpr std::size_t kLabelWidth = 19;

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width) text.resize(width, ' ');
  return text;
}

std::string rightAligned(const std::string& text, std::size_t width) {
  return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string line(const std::string& label, const std::string& value) {
  return "  " + padded(label, kLabelWidth) + value + "\n";
}

std::string processList(const std::vector<pid_t>& processes) {
  std::string text;
  for (const pid_t process : processes) text += (text.empty() ? "" : " ") + std::to_string(process);
  return text;
}

std::string attachedBy(const qel::ShmRecord& record, const std::vector<pid_t>& processes) {
  std::string text = std::to_string(record.attached);
  if (!processes.empty()) text += " (processes " + processList(processes) + ")";
  return text;
}

std::string segmentLine(const std::string& role, const FoundSegment& segment) {
  const qel::ShmRecord& record = segment.record;
  std::string text = "  " + padded(role, 13) + padded(formatKey(record.key), 25) +
                     rightAligned(service::grouped(record.bytes), 14) + " bytes  " +
                     padded("attached " + attachedBy(record, segment.processes), 12) +
                     "  creator " + std::to_string(record.creator) + "  last " +
                     std::to_string(record.lastProcess) + "  owner " + userName(record.owner);
  if (segment.kind == FoundSegment::Kind::Data) {
    text +=
        "  ranges " + statusName(segment.ipStatus) + "  names " + statusName(segment.codeStatus);
  } else {
    text += "  records " + service::grouped(segment.recordedBytes) + " bytes";
  }
  return text + "\n";
}

std::string imageTitle(const FoundImage& image) {
  const auto keys = keysOf(image);
  if (keys) return "image --keys " + formatKeys(*keys) + "\n";
  return std::string("incomplete image: ") +
         (image.sizeRecord ? "not both data segments were found" : "no size record was found") +
         "\n";
}

std::string slotName(const ImageSlots& slots, std::size_t index) {
  const char* const role = index == 2 ? "size record" : index == 0 ? "segment 0" : "segment 1";
  return std::string(role) + ", key " + formatKey(slots.segments[index].key);
}

std::string absence(const SegmentSlot& slot) {
  if (slot.state == SegmentSlot::State::Missing) return "there is no segment behind this key";
  return "the " + std::to_string(slot.record->bytes) +
         " bytes behind this key are nothing that this library laid";
}

std::string recordLines(const SegmentSlot& slot) {
  const qel::ShmRecord& record = *slot.record;
  return line("size", service::grouped(record.bytes) + " bytes") +
         line("attached", attachedBy(record, slot.processes)) +
         line("made by", "process " + std::to_string(record.creator) + ", owner " +
                             userName(record.owner) + ", " + formatTime(record.changed)) +
         line("last used by", "process " + std::to_string(record.lastProcess)) +
         line("last attach", formatTime(record.lastAttach)) +
         line("last detach", formatTime(record.lastDetach));
}

std::string regionLine(int index, const RegionReport& region) {
  const std::string name = regionName(index);
  if (!region.reached) return "    " + padded(name, 15) + "not found: the layout is damaged\n";
  return "    " + padded(name, 15) + rightAligned(service::grouped(region.nodes), 11) + " of " +
         rightAligned(service::grouped(roomOf(region)), 11) +
         rightAligned(service::grouped(region.sizeWord), 16) + " bytes at " +
         std::to_string(region.offset) + "\n";
}

std::string dataLines(const SegmentReport& report) {
  std::string text =
      line("ranges", statusName(report.ipStatus)) + line("names", statusName(report.codeStatus)) +
      line("digest of ranges", report.digest.empty() ? "none: not all decode" : report.digest);
  if (report.changedMeanwhile) text += line("note", "it was written while it was read");
  if (report.faultCount != 0)
    text += line("damage",
                 service::grouped(report.faultCount) + " findings; tolvar shm verify lists them");
  text += "  tables (written, room, block)\n";
  for (int i = 0; i < kRegions; ++i)
    text += regionLine(i, report.regions[static_cast<std::size_t>(i)]);
  return text + "    " + padded("slack", 15) + rightAligned(service::grouped(report.slack), 42) +
         " bytes\n";
}

std::string lockLines(const ImageSlots& slots) {
  std::string text = "lock, key " + formatKey(slots.segments[2].key) + "\n";
  if (!slots.lock) return text + line("state", "nobody has made it yet, or it cannot be read");
  text += line("state", slots.lock->held ? "held: a publication or a start is under way" : "free");
  text += line("last taken/given", formatTime(slots.lock->lastChange) + " by process " +
                                       std::to_string(slots.lock->lastProcess));
  return text;
}

/// The image does not record when it was published. Publishers and starts take the lock, so nothing
/// was published after it was last given back.
std::string publicationLine(const ImageSlots& slots) {
  std::string text = "unknown";
  if (slots.lock && slots.lock->lastChange != 0) {
    text = slots.lock->held ? "perhaps under way now"
                            : "not after " + formatTime(slots.lock->lastChange) +
                                  " (segments bear no time; starts take the lock, too)";
  }
  return "last publication: " + text + "\n";
}

std::string findingLine(const ImageSlots& slots, std::size_t segment, const ImageFault& fault,
                        const char* kind) {
  std::string text = std::string(kind) + ": segment " + std::to_string(segment) + " (key " +
                     std::to_string(slots.segments[segment].key) + "), " + regionName(fault.region);
  if (fault.node >= 0) text += ", node " + std::to_string(fault.node);
  return text + ", offset " + std::to_string(fault.offset) + ": " + fault.problem + "\n";
}

std::string findingLines(const ImageSlots& slots, std::size_t segment,
                         const std::vector<ImageFault>& list, std::uint64_t count,
                         const char* kind) {
  std::string text;
  for (const ImageFault& fault : list) text += findingLine(slots, segment, fault, kind);
  if (count > list.size())
    text += std::string(kind) + ": segment " + std::to_string(segment) + ": and " +
            service::grouped(count - list.size()) + " more\n";
  return text;
}

std::string verdict(const ImageReport& report, std::size_t segment) {
  const SegmentReport& data = *report.data[segment];
  std::uint64_t nodes = 0;
  for (const RegionReport& region : data.regions) nodes += region.nodes;
  std::string text = "segment " + std::to_string(segment) + " (key " +
                     std::to_string(report.slots->segments[segment].key) + "): ranges " +
                     statusName(data.ipStatus) + ", names " + statusName(data.codeStatus) + ", " +
                     service::grouped(nodes) + " nodes read, " + service::grouped(data.faultCount) +
                     " faults";
  if (data.faultCount != 0 && isBeingWritten(report, segment))
    text += " (it is being written, so they do not count)";
  return text + "\n";
}

}  // namespace

std::string listText(const std::vector<FoundImage>& images, std::size_t unreadable) {
  std::string text;
  for (const FoundImage& image : images) {
    text += imageTitle(image);
    for (std::size_t i = 0; i < image.data.size(); ++i)
      text += segmentLine("segment " + std::to_string(i), image.data[i]);
    if (image.sizeRecord) text += segmentLine("size record", *image.sizeRecord);
  }
  if (!text.empty()) return text;
  return unreadable == 0 ? "no image of this library was found on this host\n"
                         : "no image of this library was found that this user may read\n";
}

std::string showText(const ImageReport& report) {
  const ImageSlots& slots = *report.slots;
  std::string text;
  for (std::size_t i = 0; i < slots.segments.size(); ++i) {
    const SegmentSlot& slot = slots.segments[i];
    text += slotName(slots, i) + "\n";
    if (slot.state != SegmentSlot::State::Ours) {
      text += line("state", absence(slot));
      continue;
    }
    text += recordLines(slot);
    text += i < 2 ? dataLines(*report.data[i])
                  : line("records", service::grouped(slots.recordedBytes) + " bytes a segment");
  }
  return text + lockLines(slots) + publicationLine(slots);
}

std::string verifyText(const ImageReport& report) {
  const ImageSlots& slots = *report.slots;
  std::string text;
  for (std::size_t i = 0; i < 2; ++i) {
    if (!report.data[i]) {
      text += "fault: " + slotName(slots, i) + ": " + absence(slots.segments[i]) + "\n";
      continue;
    }
    const SegmentReport& data = *report.data[i];
    text += findingLines(slots, i, data.faults, data.faultCount, "fault");
    text += findingLines(slots, i, data.oddities, data.oddityCount, "warning");
    text += verdict(report, i);
  }
  if (slots.segments[2].state != SegmentSlot::State::Ours)
    text += "warning: " + slotName(slots, 2) + ": " + absence(slots.segments[2]) + "\n";
  if (hasTwoTables(report))
    text +=
        "warning: both segments are ready, but hold different ranges; segment 0 is the one that "
        "a start takes\n";
  return text + (report.damage == 0 ? "the image is whole\n" : "the image is damaged\n");
}

}  // namespace tolvar::tools
