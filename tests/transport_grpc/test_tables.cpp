#include "tests/transport_grpc/test_tables.h"

#include <algorithm>
#include <limits>

namespace tolvar_test {
namespace {

std::uint32_t anyUint32(std::mt19937_64& random) {
  switch (random() % 4) {
    case 0: return 0;
    case 1: return std::numeric_limits<std::uint32_t>::max();
    case 2: return static_cast<std::uint32_t>(random() % 300);
    default: return static_cast<std::uint32_t>(random());
  }
}

std::int64_t anyInt64(std::mt19937_64& random) {
  switch (random() % 4) {
    case 0: return std::numeric_limits<std::int64_t>::min();
    case 1: return std::numeric_limits<std::int64_t>::max();
    default: return static_cast<std::int64_t>(random());
  }
}

}  // namespace

std::string describe(const ravel::IPProperty& r) {
  std::string text;
  for (const std::int64_t value :
       {std::int64_t{r.timesTamp}, std::int64_t{r.sequence}, std::int64_t{r.startIP},
        std::int64_t{r.endIP}, r.place, std::int64_t{r.extend}, std::int64_t{r.oper},
        std::int64_t{r.nettype}, std::int64_t{r.apn}, std::int64_t{r.flable}})
    text += std::to_string(value) + " ";
  return text;
}

std::vector<std::string> describe(const std::vector<ravel::IPProperty>& ranges) {
  std::vector<std::string> texts;
  for (const ravel::IPProperty& range : ranges) texts.push_back(describe(range));
  return texts;
}

std::vector<ravel::IPProperty> makeRanges(std::size_t count) {
  std::vector<ravel::IPProperty> ranges(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    ravel::IPProperty& range = ranges[i];
    range.startIP = 0x01000000u + i * 256;
    range.endIP = range.startIP + 200 + i % 56;
    range.place = 156000000000 + i % 7 * 1000;
    range.oper = i % 5;
    range.nettype = i % 3;
    range.apn = i % 256;
    range.flable = i;
  }
  return ranges;
}

std::vector<ravel::CodeInfo> makeCodes() {
  std::vector<ravel::CodeInfo> codes;
  for (std::int32_t type = 1; type <= 8; ++type)
    for (const std::int64_t id : {std::int64_t{type}, std::int64_t{1000000000000} + type}) {
      ravel::CodeInfo& code = codes.emplace_back();
      code.codeType = type;
      code.ID = id;
      code.content = "name " + std::to_string(id);
    }
  return codes;
}

std::shared_ptr<tolvar::service::LookupService> makeService(std::size_t count) {
  auto service = std::make_shared<tolvar::service::LookupService>();
  service->publish(tolvar::service::TableData{makeRanges(count), makeCodes()});
  return service;
}

std::vector<ravel::IPProperty> randomPage(std::mt19937_64& random, std::size_t count) {
  std::vector<ravel::IPProperty> ranges(count);
  std::uint64_t cursor = 0;
  for (ravel::IPProperty& range : ranges) {
    cursor += 1 + random() % (std::uint64_t{1} << (random() % 40));
    range.timesTamp = static_cast<std::uint32_t>(cursor >> 32);
    range.sequence = static_cast<std::uint32_t>(cursor);
    const std::uint32_t one = anyUint32(random);
    const std::uint32_t other = anyUint32(random);
    range.startIP = std::min(one, other);
    range.endIP = std::max(one, other);
    range.place = anyInt64(random);
    range.extend = anyUint32(random);
    range.oper = anyUint32(random);
    range.nettype = anyUint32(random);
    range.apn = anyUint32(random);
    range.flable = anyUint32(random);
  }
  return ranges;
}

}  // namespace tolvar_test
