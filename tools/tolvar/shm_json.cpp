#include <nlohmann/json.hpp>

#include "tools/tolvar/shm_report.h"
#include "tools/tolvar/shm_values.h"

namespace tolvar::tools {
namespace {

using Json = nlohmann::ordered_json;

std::string document(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json timeOf(std::time_t time) { return time == 0 ? Json() : Json(formatTime(time)); }

Json recordOf(const qel::ShmRecord& record, const std::vector<pid_t>& processes) {
  return {{"key", record.key},
          {"id", record.id},
          {"bytes", record.bytes},
          {"attached", record.attached},
          {"processes", processes},
          {"creator", record.creator},
          {"lastProcess", record.lastProcess},
          {"owner", userName(record.owner)},
          {"made", timeOf(record.changed)},
          {"lastAttach", timeOf(record.lastAttach)},
          {"lastDetach", timeOf(record.lastDetach)}};
}

Json foundOf(const FoundSegment& segment) {
  Json json = recordOf(segment.record, segment.processes);
  if (segment.kind == FoundSegment::Kind::Data) {
    json["ipStatus"] = statusName(segment.ipStatus);
    json["codeStatus"] = statusName(segment.codeStatus);
  } else {
    json["recordedBytes"] = segment.recordedBytes;
  }
  return json;
}

Json regionOf(int index, const RegionReport& region) {
  Json json = {{"table", regionName(index)}, {"found", region.reached}};
  if (!region.reached) return json;
  json["nodes"] = region.nodes;
  json["capacity"] = roomOf(region);
  json["bytes"] = region.sizeWord;
  json["offset"] = region.offset;
  return json;
}

const char* stateOf(const SegmentSlot& slot) {
  switch (slot.state) {
    case SegmentSlot::State::Ours: return "ours";
    case SegmentSlot::State::Foreign: return "foreign";
    default: return "missing";
  }
}

Json slotOf(const SegmentSlot& slot) {
  Json json = slot.record ? recordOf(*slot.record, slot.processes) : Json{{"key", slot.key}};
  json["state"] = stateOf(slot);
  return json;
}

Json findingsOf(const std::vector<ImageFault>& list) {
  Json json = Json::array();
  for (const ImageFault& fault : list) {
    json.push_back({{"table", regionName(fault.region)},
                    {"node", fault.node < 0 ? Json() : Json(fault.node)},
                    {"offset", fault.offset},
                    {"problem", fault.problem}});
  }
  return json;
}

Json lockOf(const ImageSlots& slots) {
  if (!slots.lock) return Json();
  return {{"held", slots.lock->held},
          {"lastProcess", slots.lock->lastProcess},
          {"lastChange", timeOf(slots.lock->lastChange)}};
}

void addData(const SegmentReport& report, Json* json) {
  (*json)["ipStatus"] = statusName(report.ipStatus);
  (*json)["codeStatus"] = statusName(report.codeStatus);
  (*json)["digest"] = report.digest.empty() ? Json() : Json(report.digest);
  (*json)["faults"] = report.faultCount;
  (*json)["writtenWhileRead"] = report.changedMeanwhile;
  Json& tables = (*json)["tables"] = Json::array();
  for (int i = 0; i < kRegions; ++i)
    tables.push_back(regionOf(i, report.regions[static_cast<std::size_t>(i)]));
  (*json)["slack"] = report.slack;
}

}  // namespace

std::string listJson(const std::vector<FoundImage>& images, std::size_t unreadable) {
  Json list = Json::array();
  for (const FoundImage& image : images) {
    const auto keys = keysOf(image);
    Json segments = Json::array();
    for (const FoundSegment& segment : image.data) segments.push_back(foundOf(segment));
    list.push_back({{"keys", keys ? Json(*keys) : Json()},
                    {"segments", segments},
                    {"sizeRecord", image.sizeRecord ? foundOf(*image.sizeRecord) : Json()}});
  }
  return document({{"images", list}, {"unreadableSegments", unreadable}});
}

std::string showJson(const ImageReport& report) {
  const ImageSlots& slots = *report.slots;
  Json segments = Json::array();
  for (std::size_t i = 0; i < 2; ++i) {
    Json json = slotOf(slots.segments[i]);
    if (report.data[i]) addData(*report.data[i], &json);
    segments.push_back(json);
  }
  Json record = slotOf(slots.segments[2]);
  record["recordedBytes"] = slots.recordedBytes == 0 ? Json() : Json(slots.recordedBytes);
  const bool settled = slots.lock && !slots.lock->held;
  return document({{"segments", segments},
                   {"sizeRecord", record},
                   {"lock", lockOf(slots)},
                   {"lastPublicationNotAfter", settled ? timeOf(slots.lock->lastChange) : Json()}});
}

std::string verifyJson(const ImageReport& report) {
  const ImageSlots& slots = *report.slots;
  Json segments = Json::array();
  for (std::size_t i = 0; i < 2; ++i) {
    Json json = {{"key", slots.segments[i].key}, {"state", stateOf(slots.segments[i])}};
    if (report.data[i]) {
      const SegmentReport& data = *report.data[i];
      json["ipStatus"] = statusName(data.ipStatus);
      json["codeStatus"] = statusName(data.codeStatus);
      json["beingWritten"] = isBeingWritten(report, i);
      json["faultCount"] = data.faultCount;
      json["faults"] = findingsOf(data.faults);
      json["warningCount"] = data.oddityCount;
      json["warnings"] = findingsOf(data.oddities);
    }
    segments.push_back(json);
  }
  return document({{"whole", report.damage == 0},
                   {"segments", segments},
                   {"sizeRecord", slotOf(slots.segments[2])},
                   {"differentRanges", hasTwoTables(report)}});
}

}  // namespace tolvar::tools
