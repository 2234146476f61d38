#include "src/image_inspector.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "include/segment_types.h"
#include "src/image_codec.h"

namespace tolvar {
namespace {

/// Bytes that others may write, copied out once each.
class SharedBytes {
 public:
  SharedBytes(const void* begin, std::size_t size)
      : _begin(static_cast<const char*>(begin)), _size(size) {}

  std::size_t size() const { return _size; }
  bool holds(std::uint64_t offset, std::uint64_t bytes) const {
    return offset <= _size && bytes <= _size - offset;
  }

  /// The caller has asked `holds`.
  template <class T>
  T copy(std::uint64_t offset) const {
    T value{};
    std::memcpy(static_cast<void*>(&value), _begin + offset, sizeof value);
    return value;
  }

 private:
  const char* _begin;
  std::size_t _size;
};

void note(std::vector<ImageFault>* list, std::uint64_t* count, ImageFault fault) {
  if (list->size() < SegmentReport::kListedFaults) list->push_back(std::move(fault));
  ++*count;
}

/// Gathers the faults of one region.
class RegionFaults {
 public:
  RegionFaults(SegmentReport* report, int region) : _report(report), _region(region) {}

  void add(std::int64_t node, std::uint64_t offset, std::string problem) {
    note(&_report->faults, &_report->faultCount, {_region, node, offset, std::move(problem)});
  }
  void addOddity(std::int64_t node, std::uint64_t offset, std::string problem) {
    note(&_report->oddities, &_report->oddityCount, {_region, node, offset, std::move(problem)});
  }

 private:
  SegmentReport* _report;
  int _region;
};

constexpr std::uint64_t kVectorHead = sizeof(tagMemQueueHead);

std::uint64_t capacityOf(std::uint64_t blockBytes) {
  return (blockBytes - kVectorHead) / sizeof(MemNode);
}

void checkVectorHead(RegionReport* region, RegionFaults faults) {
  const tagMemQueueHead& head = region->head;
  const std::uint64_t at = region->offset + kSizeWordBytes;
  const std::uint64_t capacity = capacityOf(region->sizeWord);
  if (head._iSize != region->sizeWord) {
    faults.add(-1, at,
               "the vector announces " + std::to_string(head._iSize) + " bytes in a block of " +
                   std::to_string(region->sizeWord));
  }
  if (head._iBlockCount != capacity) {
    faults.add(-1, at + offsetof(tagMemQueueHead, _iBlockCount),
               "the vector announces room for " + std::to_string(head._iBlockCount) +
                   " nodes, the block has room for " + std::to_string(capacity));
  }
  if (head._iBlockSize != sizeof(MemNode)) {
    faults.add(-1, at + offsetof(tagMemQueueHead, _iBlockSize),
               "the vector's mark is " + std::to_string(head._iBlockSize) + " instead of 128");
  }
  if (head._iMaxIndex > capacity) {
    faults.add(-1, at + offsetof(tagMemQueueHead, _iMaxIndex),
               "the vector counts " + std::to_string(head._iMaxIndex) +
                   " nodes, the block has room for " + std::to_string(capacity));
  } else {
    region->nodes = head._iMaxIndex;
  }
}

/// Reads the words of the region at `offset`. Nothing when the walk ends here.
std::optional<RegionReport> readRegion(const SharedBytes& bytes, std::uint64_t offset,
                                       RegionFaults faults) {
  RegionReport region;
  region.offset = offset;
  if (!bytes.holds(offset, kSizeWordBytes + kVectorHead)) {
    faults.add(-1, offset,
               "the region begins beyond the segment's " + std::to_string(bytes.size()) + " bytes");
    return std::nullopt;
  }
  region.sizeWord = bytes.copy<std::uint64_t>(offset);
  const std::uint64_t block = offset + kSizeWordBytes;
  if (region.sizeWord < kVectorHead || region.sizeWord % kSizeWordBytes != 0 ||
      !bytes.holds(block, region.sizeWord)) {
    faults.add(-1, offset, "impossible block size " + std::to_string(region.sizeWord));
    return std::nullopt;
  }
  region.head = bytes.copy<tagMemQueueHead>(block);
  region.reached = true;
  checkVectorHead(&region, faults);
  return region;
}

bool isStatus(std::uint32_t word) { return word <= kMemoryStatusUnknown; }

void readHead(const SharedBytes& bytes, SegmentReport* report) {
  RegionFaults faults(report, ImageFault::kHead);
  if (!bytes.holds(0, sizeof(MemoryHead))) {
    faults.add(-1, 0, "the segment's " + std::to_string(bytes.size()) + " bytes hold no head");
    return;
  }
  report->ipStatus = bytes.copy<std::uint32_t>(offsetof(MemoryHead, ip_usable));
  report->codeStatus = bytes.copy<std::uint32_t>(offsetof(MemoryHead, code_usable));
  if (!isStatus(report->ipStatus)) {
    faults.add(-1, offsetof(MemoryHead, ip_usable),
               "the ranges' status is " + std::to_string(report->ipStatus) + "; expected 0 to 3");
  }
  if (!isStatus(report->codeStatus)) {
    faults.add(-1, offsetof(MemoryHead, code_usable),
               "the names' status is " + std::to_string(report->codeStatus) + "; expected 0 to 3");
  }
}

/// Decodes nodes of one region one after another.
class NodeReader {
 public:
  NodeReader(const SharedBytes& bytes, const RegionReport& region, RegionFaults faults)
      : _bytes(bytes), _first(region.offset + kSizeWordBytes + kVectorHead), _faults(faults) {}

  std::uint64_t offsetOf(std::uint64_t index) const { return _first + index * sizeof(MemNode); }

  /// False, and a fault, when the node is no such record. Other faults are only noted.
  template <class Record>
  bool read(std::uint64_t index, Record* record) {
    const auto node = _bytes.copy<MemNode>(offsetOf(index));
    const std::uint64_t length = node.encodedLength();
    if (length > MemNode::kRoom) {
      return fault(index, 0,
                   "claims an encoding of " + std::to_string(length) + " bytes, a node holds " +
                       std::to_string(MemNode::kRoom));
    }
    try {
      node.ParseTo(record);
    } catch (const qel::VekDecodeException& error) {
      return fault(index, sizeof length, std::string("does not decode: ") + error.what());
    }
    const char* const end = node.m_buffer + sizeof node.m_buffer;
    const char* const rest = node.m_buffer + sizeof length + length;
    const char* const odd = std::find_if(rest, end, [](char c) { return c != 0; });
    // A client reads such a node all the same.
    if (odd != end) {
      fault(index, static_cast<std::uint64_t>(odd - node.m_buffer),
            "a byte behind the encoding is not zero");
    }
    return true;
  }

 private:
  bool fault(std::uint64_t index, std::uint64_t at, std::string problem) {
    _faults.add(static_cast<std::int64_t>(index), offsetOf(index) + at, std::move(problem));
    return false;
  }

  const SharedBytes& _bytes;
  std::uint64_t _first;
  RegionFaults _faults;
};

/// Holds each range against the one before it.
class RangeOrder {
 public:
  RangeOrder(const NodeReader& nodes, RegionFaults faults) : _nodes(nodes), _faults(faults) {}

  void check(std::uint64_t index, const ravel::IPAttribute& range) {
    const auto node = static_cast<std::int64_t>(index);
    const std::uint64_t at = _nodes.offsetOf(index);
    if (range.startIP > range.endIP) _faults.addOddity(node, at, "the range ends before it begins");
    if (_hasPrevious) {
      // The publisher sorts; what lies next to each other may still overlap as the service sent it.
      if (range.startIP < _previous.startIP) {
        _faults.add(node, at, "the range begins before its predecessor");
      } else if (range.startIP <= _previous.endIP) {
        _faults.addOddity(node, at, "the range overlaps its predecessor");
      }
    }
    _previous = range;
    _hasPrevious = true;
  }

 private:
  const NodeReader& _nodes;
  RegionFaults _faults;
  // No std::optional: g++ 12 at -O3 takes its value for one that may be read before it is set.
  ravel::IPAttribute _previous{};
  bool _hasPrevious = false;
};

void readRanges(const SharedBytes& bytes, SegmentReport* report) {
  const RegionFaults faults(report, 0);
  NodeReader nodes(bytes, report->regions[0], faults);
  RangeOrder order(nodes, faults);
  ContentDigest digest;
  bool whole = report->regions[0].head._iMaxIndex == report->regions[0].nodes;
  for (std::uint64_t i = 0; i < report->regions[0].nodes; ++i) {
    ravel::IPAttribute range;
    if (nodes.read(i, &range)) {
      order.check(i, range);
      digest.add(range);
    } else {
      whole = false;
    }
  }
  if (whole) report->digest = digest.finish();
}

void readCodes(const SharedBytes& bytes, int table, SegmentReport* report) {
  RegionFaults faults(report, 1 + table);
  const RegionReport& region = report->regions[static_cast<std::size_t>(1 + table)];
  NodeReader nodes(bytes, region, faults);
  for (std::uint64_t i = 0; i < region.nodes; ++i) {
    ravel::CodeInfo code;
    if (!nodes.read(i, &code) || code.codeType == 1 + table) continue;
    faults.add(static_cast<std::int64_t>(i), nodes.offsetOf(i),
               "the entry is of type " + std::to_string(code.codeType) + " instead of " +
                   std::to_string(1 + table));
  }
}

bool sameWords(const SegmentReport& a, const SegmentReport& b) {
  return a.ipStatus == b.ipStatus && a.codeStatus == b.codeStatus &&
         std::equal(a.regions.begin(), a.regions.end(), b.regions.begin(),
                    [](const RegionReport& x, const RegionReport& y) {
                      return x.sizeWord == y.sizeWord &&
                             std::memcmp(&x.head, &y.head, sizeof x.head) == 0;
                    });
}

/// True when a size word at `offset` and the vector head behind it agree.
bool fitsTogether(const SharedBytes& bytes, std::uint64_t offset) {
  if (!bytes.holds(offset, kSizeWordBytes + kVectorHead)) return false;
  const auto size = bytes.copy<std::uint64_t>(offset);
  const auto head = bytes.copy<tagMemQueueHead>(offset + kSizeWordBytes);
  return size >= kVectorHead && head._iBlockSize == sizeof(MemNode) && head._iSize == size &&
         head._iBlockCount == capacityOf(size);
}

}  // namespace

const char* regionName(int region) noexcept {
  constexpr const char* kNames[kRegions] = {"ranges",    "countries",     "provinces",
                                            "cities",    "districts",     "extensions",
                                            "operators", "network types", "access points"};
  return region >= 0 && region < kRegions ? kNames[region] : "head";
}

bool SegmentReport::ready() const noexcept {
  return ipStatus == kMemoryStatusReady && codeStatus == kMemoryStatusReady;
}

SegmentReport inspectLayout(const void* segment, std::size_t size) {
  const SharedBytes bytes(segment, size);
  SegmentReport report;
  report.bytes = size;
  readHead(bytes, &report);
  std::uint64_t at = kHeadBytes;
  for (int i = 0; i < kRegions; ++i) {
    const auto region = readRegion(bytes, at, RegionFaults(&report, i));
    if (!region) return report;
    report.regions[static_cast<std::size_t>(i)] = *region;
    at += kSizeWordBytes + region->sizeWord;
  }
  report.slack = size - at;
  return report;
}

SegmentReport inspectSegment(const void* segment, std::size_t size) {
  SegmentReport report = inspectLayout(segment, size);
  const SharedBytes bytes(segment, size);
  if (report.regions[0].reached) readRanges(bytes, &report);
  for (int k = 0; k < kCodeTables; ++k) readCodes(bytes, k, &report);
  report.changedMeanwhile = !sameWords(report, inspectLayout(segment, size));
  return report;
}

bool isLaidSegment(const void* segment, std::size_t size) {
  const SharedBytes bytes(segment, size);
  for (const std::size_t offset : regionOffsets(defaultRegionSizes()))
    if (fitsTogether(bytes, offset)) return true;
  std::uint64_t at = kHeadBytes;
  for (int region = 0; region < kRegions && bytes.holds(at, kSizeWordBytes); ++region) {
    if (fitsTogether(bytes, at)) return true;
    const auto blockBytes = bytes.copy<std::uint64_t>(at);
    if (!bytes.holds(at + kSizeWordBytes, blockBytes)) return false;
    at += kSizeWordBytes + blockBytes;
  }
  return false;
}

std::uint64_t recordedSize(const void* segment, std::size_t size) {
  const SharedBytes bytes(segment, size);
  if (!bytes.holds(0, sizeof(ShmSize))) return 0;
  const auto record = bytes.copy<ShmSize>(0);
  return record.valid() ? record.m_size : 0;
}

}  // namespace tolvar
