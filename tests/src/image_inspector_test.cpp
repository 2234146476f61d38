// What the inspector finds in whole, damaged, foreign and random segments. All of them lie in
// blocks of ordinary memory that end where the segment ends.

#include "src/image_inspector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "tests/src/small_segment.h"
#include "tests/support/range_records.h"

namespace {

using namespace tolvar_test;
using testing::ElementsAre;
using testing::HasSubstr;
using tolvar::ImageFault;
using tolvar::inspectLayout;
using tolvar::inspectSegment;
using tolvar::SegmentReport;

SegmentReport inspect(const SmallSegment& segment) {
  return inspectSegment(segment.bytes.data(), segment.bytes.size());
}

/// The one fault of a segment with one fault.
ImageFault onlyFault(const SmallSegment& segment) {
  const SegmentReport report = inspect(segment);
  EXPECT_EQ(report.faultCount, 1u);
  EXPECT_EQ(report.faults.size(), 1u);
  return report.faults.empty() ? ImageFault() : report.faults.front();
}

TEST(ImageInspector, TellsWhatAWholeSegmentHolds) {
  const SmallSegment segment;
  const SegmentReport report = inspect(segment);
  EXPECT_EQ(report.faultCount, 0u);
  EXPECT_EQ(report.oddityCount, 0u);
  EXPECT_TRUE(report.ready());
  EXPECT_EQ(report.bytes, segment.bytes.size());
  EXPECT_EQ(report.slack, SmallSegment::kSlack);
  EXPECT_EQ(report.digest, digestOf(segment.ranges));
  EXPECT_EQ(report.regions[0].nodes, SmallSegment::kRanges);
  EXPECT_EQ(report.regions[0].head._iBlockCount, SmallSegment::kRangeRoom);
  for (std::size_t i = 0; i < report.regions.size(); ++i) {
    EXPECT_TRUE(report.regions[i].reached);
    EXPECT_EQ(report.regions[i].offset, segment.offsets[i]);
    EXPECT_EQ(report.regions[i].sizeWord, segment.sizes[i]);
    if (i != 0) {
      EXPECT_EQ(report.regions[i].nodes, SmallSegment::kCodes);
    }
  }
  EXPECT_FALSE(report.changedMeanwhile);
}

TEST(ImageInspector, LayoutAloneReadsNoNodes) {
  SmallSegment segment;
  segment.set64(segment.node(0, 1), 121);
  const SegmentReport report = inspectLayout(segment.bytes.data(), segment.bytes.size());
  EXPECT_EQ(report.faultCount, 0u);
  EXPECT_EQ(report.digest, "");
  EXPECT_EQ(report.regions[0].nodes, SmallSegment::kRanges);
}

TEST(ImageInspector, AnUnknownStatusIsAFaultOfTheHead) {
  SmallSegment segment;
  segment.set32(4, 77);
  const ImageFault fault = onlyFault(segment);
  EXPECT_EQ(fault.region, ImageFault::kHead);
  EXPECT_EQ(fault.node, -1);
  EXPECT_EQ(fault.offset, 4u);
  EXPECT_THAT(fault.problem, HasSubstr("77"));
}

TEST(ImageInspector, EveryStatusThatThereIsIsNone) {
  for (std::uint32_t status = 0; status <= 3; ++status) {
    SmallSegment segment;
    segment.set32(0, status);
    const SegmentReport report = inspect(segment);
    EXPECT_EQ(report.faultCount, 0u);
    EXPECT_EQ(report.ready(), status == 1);
  }
}

TEST(ImageInspector, NamesTheRegionWhoseSizeWordIsImpossible) {
  for (int region = 0; region < tolvar::kRegions; ++region) {
    for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{31}, std::uint64_t{33},
                                     std::uint64_t{1} << 40, UINT64_MAX, UINT64_MAX - 7}) {
      SmallSegment segment;
      segment.set64(segment.word(region, 0), size);
      const ImageFault fault = onlyFault(segment);
      EXPECT_EQ(fault.region, region);
      EXPECT_EQ(fault.offset, segment.word(region, 0));
      EXPECT_THAT(fault.problem, HasSubstr(std::to_string(size)));
      // What lies before it is still read.
      const SegmentReport report = inspect(segment);
      for (int i = 0; i < tolvar::kRegions; ++i)
        EXPECT_EQ(report.regions[static_cast<std::size_t>(i)].reached, i < region);
    }
  }
}

TEST(ImageInspector, NamesTheWordOfAVectorsHeadThatIsWrong) {
  for (int region = 0; region < tolvar::kRegions; ++region) {
    for (std::size_t word = 1; word <= 4; ++word) {
      SmallSegment segment;
      segment.set64(segment.word(region, word), 5000);
      const ImageFault fault = onlyFault(segment);
      EXPECT_EQ(fault.region, region);
      EXPECT_EQ(fault.offset, segment.word(region, word));
      EXPECT_THAT(fault.problem, HasSubstr("5000"));
    }
  }
}

TEST(ImageInspector, WithoutABelievableCountThereIsNoDigest) {
  SmallSegment segment;
  segment.set64(segment.word(0, 4), SmallSegment::kRangeRoom + 1);
  EXPECT_EQ(inspect(segment).digest, "");
}

TEST(ImageInspector, NamesTheNodeThatDoesNotDecode) {
  for (int region = 0; region < tolvar::kRegions; ++region) {
    SmallSegment segment;
    // The first field's head becomes an invalid type.
    segment.bytes[segment.node(region, 1) + 8] = '\x0E';
    const ImageFault fault = onlyFault(segment);
    EXPECT_EQ(fault.region, region);
    EXPECT_EQ(fault.node, 1);
    EXPECT_EQ(fault.offset, segment.node(region, 1) + 8);
    EXPECT_THAT(fault.problem, HasSubstr("does not decode"));
    EXPECT_EQ(inspect(segment).digest.empty(), region == 0);
  }
}

TEST(ImageInspector, ALengthBeyondTheNodeIsNotFollowed) {
  for (const std::uint64_t length : {std::uint64_t{121}, std::uint64_t{128}, UINT64_MAX}) {
    SmallSegment segment;
    segment.set64(segment.node(8, 1), length);
    const ImageFault fault = onlyFault(segment);
    EXPECT_EQ(fault.region, 8);
    EXPECT_EQ(fault.node, 1);
    EXPECT_EQ(fault.offset, segment.node(8, 1));
  }
}

TEST(ImageInspector, AByteBehindTheEncodingIsAFaultWhereItLies) {
  SmallSegment segment;
  segment.bytes[segment.node(3, 0) + 127] = 1;
  EXPECT_NE(inspect(segment).digest, "");
  const ImageFault fault = onlyFault(segment);
  EXPECT_EQ(fault.region, 3);
  EXPECT_EQ(fault.node, 0);
  EXPECT_EQ(fault.offset, segment.node(3, 0) + 127);
}

/// Found by fuzz_segment_image: a client takes such a segment over, so it has a digest.
TEST(ImageInspector, RangesWithBytesBehindThemStillHaveADigest) {
  SmallSegment segment;
  segment.bytes[segment.node(0, 2) + 100] = 1;
  EXPECT_EQ(inspect(segment).faultCount, 1u);
  EXPECT_EQ(inspect(segment).digest, digestOf(segment.ranges));
}

TEST(ImageInspector, ACodeEntryInTheWrongTableIsAFault) {
  SmallSegment segment;
  ravel::CodeInfo code;
  code.codeType = 5;
  segment.put(2, 1, code);
  const ImageFault fault = onlyFault(segment);
  EXPECT_EQ(fault.region, 2);
  EXPECT_EQ(fault.node, 1);
  EXPECT_THAT(fault.problem, HasSubstr("type 5 instead of 2"));
}

TEST(ImageInspector, RangesOutOfOrderAreAFaultAndOverlapsAnOddity) {
  SmallSegment swapped;
  swapped.put(0, 0, swapped.ranges[2]);
  swapped.put(0, 2, swapped.ranges[0]);
  EXPECT_EQ(inspect(swapped).faultCount, 2u);

  SmallSegment overlapping;
  ravel::IPAttribute range = overlapping.ranges[1];
  range.startIP = overlapping.ranges[0].endIP;
  overlapping.put(0, 1, range);
  SegmentReport report = inspect(overlapping);
  EXPECT_EQ(report.faultCount, 0u);
  ASSERT_EQ(report.oddityCount, 1u);
  EXPECT_EQ(report.oddities[0].node, 1);
  EXPECT_NE(report.digest, "");

  SmallSegment reversed;
  range = reversed.ranges[2];
  range.endIP = range.startIP - 1;
  reversed.put(0, 2, range);
  report = inspect(reversed);
  EXPECT_EQ(report.faultCount, 0u);
  ASSERT_EQ(report.oddityCount, 1u);
  EXPECT_THAT(report.oddities[0].problem, HasSubstr("ends before it begins"));
}

TEST(ImageInspector, FaultsBeyondTheListAreCounted) {
  constexpr std::size_t kNodes = 3 * SegmentReport::kListedFaults;
  SmallSegment small;
  tolvar::RegionSizes sizes = small.sizes;
  sizes[0] = IPVector::calcMemSize(kNodes);
  std::vector<char> bytes(tolvar::segmentBytes(sizes));
  const auto offsets = tolvar::regionOffsets(sizes);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::memcpy(bytes.data() + offsets[i], &sizes[i], 8);
    IPVector vector;
    vector.create(bytes.data() + offsets[i] + 8, sizes[i]);
    const std::uint64_t count = i == 0 ? kNodes : 0;
    std::memcpy(bytes.data() + offsets[i] + 8 + 24, &count, sizeof count);
  }
  const SegmentReport report = inspectSegment(bytes.data(), bytes.size());
  EXPECT_EQ(report.faultCount, kNodes);
  EXPECT_EQ(report.faults.size(), SegmentReport::kListedFaults);
}

TEST(ImageInspector, EveryTruncationIsSurvivedAndReported) {
  const SmallSegment segment;
  for (std::size_t size = 0; size + SmallSegment::kSlack < segment.bytes.size(); ++size) {
    // A copy of its own, so that the address sanitizer sees a step beyond it.
    const std::vector<char> cut(segment.bytes.begin(),
                                segment.bytes.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_GT(inspectSegment(cut.data(), cut.size()).faultCount, 0u) << size;
    tolvar::isLaidSegment(cut.data(), cut.size());
  }
}

/// A start judges by walkLayout and by decoding; whatever it refuses, the inspector must find.
TEST(ImageInspector, FindsWhateverAStartRefuses) {
  std::mt19937_64 random(5);
  int refused = 0;
  for (int round = 0; round < 20000; ++round) {
    SmallSegment segment;
    for (auto times = 1 + random() % 3; times > 0; --times) {
      const std::size_t at =
          random() % 2 == 0
              ? segment.word(static_cast<int>(random() % 9), random() % 5) + random() % 8
              : random() % segment.bytes.size();
      segment.bytes[at] = static_cast<char>(random());
    }
    const tolvar::LayoutWalk walk = tolvar::walkLayout(segment.bytes.data(), segment.bytes.size());
    bool good = walk.fits;
    for (int i = 0; good && i < tolvar::kRegions; ++i) {
      char* const block =
          segment.bytes.data() + tolvar::regionOffsets(walk.sizes)[static_cast<std::size_t>(i)] + 8;
      try {
        IPVector ranges;
        CodeVector codes;
        if (i == 0 && ranges.connect(block)) tolvar::decodeTable(ranges);
        if (i != 0 && codes.connect(block)) tolvar::decodeCodes(codes);
      } catch (const std::exception&) {
        good = false;
      }
    }
    const SegmentReport report = inspect(segment);
    if (!good) {
      ++refused;
      EXPECT_GT(report.faultCount, 0u) << round;
    }
  }
  EXPECT_GT(refused, 1000);
}

TEST(ImageInspector, RandomBytesAreSurvived) {
  std::mt19937_64 random(6);
  for (int round = 0; round < 3000; ++round) {
    std::vector<char> bytes(random() % 3000);
    for (char& byte : bytes) byte = static_cast<char>(random() % 7 == 0 ? random() : 0);
    const SegmentReport report = inspectSegment(bytes.data(), bytes.size());
    EXPECT_GT(report.faultCount, 0u);
    EXPECT_LE(report.faults.size(), SegmentReport::kListedFaults);
  }
}

TEST(DocumentedNode, HasTheBytesThatThePageShows) {
  ravel::IPAttribute range;
  range.startIP = 0x08080800;
  range.endIP = 0x080808FF;
  range.place = 840001001001;
  range.oper = 100;
  MemNode node;
  node.CopyFrom(range);
  const unsigned char expected[33] = {0x19, 0,    0,    0,    0,    0,    0,    0,    0x02,
                                      0x08, 0x08, 0x08, 0x00, 0x12, 0x08, 0x08, 0x08, 0xFF,
                                      0x23, 0x00, 0x00, 0x00, 0xC3, 0x93, 0xF6, 0x16, 0x29,
                                      0x3C, 0x40, 0x64, 0x5C, 0x6C, 0x7C};
  EXPECT_EQ(std::memcmp(node.m_buffer, expected, sizeof expected), 0);
  EXPECT_TRUE(std::all_of(node.m_buffer + sizeof expected, node.m_buffer + sizeof node.m_buffer,
                          [](char c) { return c == 0; }));
}

TEST(LaidSegment, IsToldByAnyOneRegionThatFitsTogether) {
  SmallSegment segment;
  EXPECT_TRUE(tolvar::isLaidSegment(segment.bytes.data(), segment.bytes.size()));
  for (int region = 0; region < 8; ++region) segment.set64(segment.word(region, 3), 0);
  EXPECT_TRUE(tolvar::isLaidSegment(segment.bytes.data(), segment.bytes.size()));
  segment.set64(segment.word(8, 3), 0);
  EXPECT_FALSE(tolvar::isLaidSegment(segment.bytes.data(), segment.bytes.size()));
}

TEST(LaidSegment, AMarkAloneOrZerosAreNotEnough) {
  std::vector<char> bytes(100000, '\0');
  EXPECT_FALSE(tolvar::isLaidSegment(bytes.data(), bytes.size()));
  bytes[40] = '\x80';
  EXPECT_FALSE(tolvar::isLaidSegment(bytes.data(), bytes.size()));
}

TEST(RecordedSize, IsThatOfAValidRecordOnly) {
  ShmSize record;
  EXPECT_EQ(tolvar::recordedSize(&record, sizeof record), 0u);
  std::fill(std::begin(record.m_usable), std::end(record.m_usable), kApiVersion);
  record.m_size = 73695648;
  EXPECT_EQ(tolvar::recordedSize(&record, sizeof record), 73695648u);
  EXPECT_EQ(tolvar::recordedSize(&record, sizeof record - 1), 0u);
  record.m_usable[15] = 0;
  EXPECT_EQ(tolvar::recordedSize(&record, sizeof record), 0u);
}

}  // namespace
