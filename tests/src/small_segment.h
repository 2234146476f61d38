#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "include/segment_types.h"
#include "src/image_codec.h"
#include "src/segment_layout.h"
#include "tests/support/range_records.h"

namespace tolvar_test {

/// A data segment in ordinary memory, with little room: three ranges and two names a table, both
/// halves ready.
class SmallSegment {
 public:
  static constexpr std::size_t kRanges = 3;
  static constexpr std::size_t kRangeRoom = 4;
  static constexpr std::size_t kCodes = 2;
  static constexpr std::size_t kCodeRoom = 3;
  static constexpr std::size_t kSlack = 40;

  SmallSegment() {
    sizes.fill(CodeVector::calcMemSize(kCodeRoom));
    sizes[0] = IPVector::calcMemSize(kRangeRoom);
    bytes.assign(tolvar::segmentBytes(sizes) + kSlack, '\0');
    offsets = tolvar::regionOffsets(sizes);
    set32(0, kMemoryStatusReady);
    set32(4, kMemoryStatusReady);
    for (std::size_t i = 0; i < sizes.size(); ++i) set64(offsets[i], sizes[i]);
    fillRanges();
    for (int k = 0; k < tolvar::kCodeTables; ++k) fillCodes(k);
  }

  /// Offset of the first byte of a node.
  std::size_t node(int region, std::size_t index) const {
    return offsets[static_cast<std::size_t>(region)] + 8 + 32 + 128 * index;
  }

  /// Offset of a word of a region: 0 the size word, 1 to 4 the vector's head.
  std::size_t word(int region, std::size_t index) const {
    return offsets[static_cast<std::size_t>(region)] + 8 * index;
  }

  void set32(std::size_t at, std::uint32_t value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
  }
  void set64(std::size_t at, std::uint64_t value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
  }

  /// Puts a record into a node by hand.
  template <class Record>
  void put(int region, std::size_t index, const Record& record) {
    MemNode node_;
    node_.CopyFrom(record);
    std::memcpy(bytes.data() + node(region, index), node_.m_buffer, sizeof node_.m_buffer);
  }

  tolvar::RegionSizes sizes{};
  std::array<std::size_t, tolvar::kRegions> offsets{};
  std::vector<ravel::IPAttribute> ranges;
  std::vector<char> bytes;

 private:
  void fillRanges() {
    IPVector vector;
    vector.create(bytes.data() + offsets[0] + 8, sizes[0]);
    for (std::uint32_t i = 0; i < kRanges; ++i) {
      ravel::IPAttribute range;
      range.startIP = 1000 * (i + 1);
      range.endIP = 1000 * (i + 1) + 499;
      range.place = 840001001001 + i;
      range.oper = i;
      ranges.push_back(range);
      appendNode(range, &vector);
    }
  }

  void fillCodes(int table) {
    const auto region = static_cast<std::size_t>(1 + table);
    CodeVector vector;
    vector.create(bytes.data() + offsets[region] + 8, sizes[region]);
    for (std::size_t i = 0; i < kCodes; ++i) {
      ravel::CodeInfo code;
      code.codeType = table + 1;
      code.ID = static_cast<std::int64_t>(i + 1);
      code.content = "name " + std::to_string(i);
      tolvar::appendNode(code, &vector);
    }
  }
};

}  // namespace tolvar_test
