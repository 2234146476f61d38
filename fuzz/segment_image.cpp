// Bytes as data segment 0 of an image that a client starts on, next to a good segment 1, a missing
// one, or none that can be made. The start ends in an answer or in an exception with a text; what
// it takes over must be what the inspector reads, and what is not ours must stay as it was.

#include <cstdio>
#include <string>

#include "fuzz/require.h"
#include "fuzz/segment_table.h"
#include "include/TolvarAPI.h"
#include "src/image_inspector.h"
#include "tests/src/small_segment.h"
#include "tests/support/client_test_access.h"

namespace {

using tolvar::SegmentReport;

constexpr key_t kKeys[3] = {101, 102, 103};

/// Room for a segment that is laid anew; costs a lot, so not every input gets it.
constexpr std::size_t kRoomForNew = 80 << 20;
constexpr std::size_t kNoRoom = 1 << 20;

struct Options {
  bool canMakeSegments = false;
  bool hasSecond = false;
  bool hasSizeRecord = false;
};

std::string goodSegment() {
  static const tolvar_test::SmallSegment segment;
  return std::string(segment.bytes.begin(), segment.bytes.end());
}

std::string sizeRecord() {
  ShmSize record;
  std::fill(std::begin(record.m_usable), std::end(record.m_usable), kApiVersion);
  record.m_size = tolvar::defaultSegmentBytes();
  return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

/// Asks for addresses at and around the ranges.
void askAround(TolvarAPI& api, const tolvar_test::SmallSegment& known) {
  ravel::IPInfo info;
  IPHumanMessage names;
  for (const ravel::IPAttribute& range : known.ranges) {
    for (const std::uint32_t ip :
         {range.startIP - 1, range.startIP, range.endIP, range.endIP + 1}) {
      api.getIPInfo(ip, &info);
      api.getIPInfo(ip, &names);
    }
  }
}

void checkAnswering(TolvarAPI& api, tolvar::ClientTestAccess& access, const SegmentReport& first,
                    const SegmentReport& second) {
  const bool tookFirst = access.vectorIP() == &access.ipVector(0);
  const SegmentReport& taken = tookFirst ? first : second;
  FUZZ_REQUIRE(taken.ready());
  FUZZ_REQUIRE(access.cltMd5() == taken.digest);
  for (int k = 0; k < tolvar::kCodeTables; ++k)
    FUZZ_REQUIRE(access.codeQueryMap(k).size() <=
                 taken.regions[static_cast<std::size_t>(1 + k)].nodes);
  static const tolvar_test::SmallSegment known;
  askAround(api, known);
  if (tookFirst) return;
  // The good segment answers as it always does.
  ravel::IPInfo info;
  FUZZ_REQUIRE(api.getIPInfo(known.ranges[0].startIP, &info));
  FUZZ_REQUIRE(info.district == known.ranges[0].place);
}

void start(const std::string& image, const Options& options) {
  tolvar_fuzz::resetSegments(options.canMakeSegments ? kRoomForNew : kNoRoom);
  tolvar_fuzz::plantSegment(kKeys[0], image);
  if (options.hasSecond) tolvar_fuzz::plantSegment(kKeys[1], goodSegment());
  if (options.hasSizeRecord) tolvar_fuzz::plantSegment(kKeys[2], sizeRecord());
  const SegmentReport first = tolvar::inspectSegment(image.data(), image.size());
  const std::string good = goodSegment();
  const SegmentReport second = tolvar::inspectSegment(good.data(), good.size());

  TolvarAPI api;
  tolvar::ClientTestAccess access(api);
  try {
    access.InitializeShareMemory(kKeys[0], kKeys[1], kKeys[2]);
  } catch (const qel::ZU_Exception& error) {
    const std::string text = error.what();
    FUZZ_REQUIRE(!text.empty());
    if (text.find("does not belong to this library") != std::string::npos)
      FUZZ_REQUIRE(tolvar_fuzz::segmentContent(kKeys[0]) == image);
    // A whole image never keeps a client from starting.
    FUZZ_REQUIRE(first.faultCount != 0 || !options.hasSecond);
    return;
  }
  if (access.hasInitialized() == 3) {
    checkAnswering(api, access, first, second);
    return;
  }
  // Only for want of room does a start pass an image over.
  const bool isWhole = first.faultCount == 0;
  FUZZ_REQUIRE(!options.hasSecond || !(isWhole || options.canMakeSegments));
  FUZZ_REQUIRE(!(isWhole && first.ready()) || !(options.hasSecond || options.canMakeSegments));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  tolvar_fuzz::installSegmentTable();
  // A start tells what it does; here nobody listens. Findings go to the descriptor itself.
  std::FILE* const nowhere = std::fopen("/dev/null", "w");
  FUZZ_REQUIRE(nowhere != nullptr);
  stdout = nowhere;
  stderr = nowhere;
  return 0;
}

/// The first byte holds the options; a segment has at least one byte.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  Options options;
  options.canMakeSegments = (data[0] & 0xF0) == 0x10;
  options.hasSecond = (data[0] & 1) != 0;
  options.hasSizeRecord = (data[0] & 2) != 0;
  start(std::string(data + 1, data + size), options);
  return 0;
}
