#include "tests/src/store_fixture.h"

#include <algorithm>
#include <set>

#include "src/image_codec.h"
#include "tests/support/range_records.h"

namespace tolvar_test {
namespace {

ravel::IPAttribute range(std::uint32_t start, std::uint32_t end, std::int64_t place,
                         std::uint32_t seed) {
  ravel::IPAttribute made;
  made.startIP = start;
  made.endIP = end;
  made.place = place;
  made.extend = seed % 7;
  made.oper = seed % 11 + 1;
  made.nettype = seed % 5;
  made.apn = seed % 300;
  made.flable = seed % 17;
  return made;
}

ravel::CodeInfo code(int table, std::int64_t id, std::string content) {
  ravel::CodeInfo made;
  made.codeType = table + 1;
  made.ID = id;
  made.content = std::move(content);
  return made;
}

}  // namespace

TestTable smallTable(int version) {
  TestTable table;
  const auto seed = static_cast<std::uint32_t>(version);
  for (std::uint32_t i = 0; i < 5; ++i) {
    table.ranges.push_back(range(0x01000000u * (i + 1), 0x01000000u * (i + 1) + 1000 + seed,
                                 86110105001 + version * 1000000000ll + i, 13 * i + seed));
  }
  for (int k = 0; k < 8; ++k) {
    for (std::int64_t id = 1; id <= 3; ++id) {
      table.codes[static_cast<std::size_t>(k)].push_back(
          code(k, id,
               "table " + std::to_string(k) + " entry " + std::to_string(id) + " version " +
                   std::to_string(version)));
    }
  }
  return table;
}

TestTable randomTable(std::mt19937_64& random, std::size_t ranges, std::size_t codesPerTable) {
  TestTable table;
  // Break points: pairs of them are ranges, adjacent ones sometimes touch or hold one address.
  std::set<std::uint32_t> bounds{0, 0xFFFFFFFFu};
  const bool dense = random() % 2 == 0;
  const auto base = static_cast<std::uint32_t>(random());
  while (bounds.size() < 2 * ranges)
    bounds.insert(dense ? base + static_cast<std::uint32_t>(random() % (8 * ranges))
                        : static_cast<std::uint32_t>(random()));
  const std::vector<std::uint32_t> sorted(bounds.begin(), bounds.end());
  for (std::size_t i = 0; i + 1 < sorted.size(); i += 2) {
    const auto start = sorted[i];
    std::uint32_t end = sorted[i + 1];
    switch (random() % 4) {
      case 0:
        if (end != 0xFFFFFFFFu) end = start;  // a single address
        break;
      case 1:
        if (i + 2 < sorted.size()) end = sorted[i + 2] - 1;  // no hole before the next
        break;
      default: break;
    }
    table.ranges.push_back(range(start, end, static_cast<std::int64_t>(random() % 900000000000ull),
                                 static_cast<std::uint32_t>(random())));
  }
  for (int k = 0; k < 8; ++k) {
    for (std::size_t i = 0; i < codesPerTable; ++i) {
      table.codes[static_cast<std::size_t>(k)].push_back(
          code(k, static_cast<std::int64_t>(random() >> (random() % 60)),
               std::string(random() % 100, static_cast<char>('a' + random() % 26))));
    }
  }
  return table;
}

std::vector<RawRange> rawRanges(const TestTable& table) {
  std::vector<RawRange> raw;
  for (const ravel::IPAttribute& r : table.ranges)
    raw.push_back({r.startIP, r.endIP, r.place, r.extend, r.oper, r.nettype, r.apn, r.flable});
  return raw;
}

std::vector<RawCode> rawCodes(const TestTable& table, int code) {
  std::vector<RawCode> raw;
  for (const ravel::CodeInfo& c : table.codes[static_cast<std::size_t>(code)])
    raw.push_back({c.codeType, c.ID, c.content});
  return raw;
}

CapturedOutput::CapturedOutput() {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
}

CapturedOutput::~CapturedOutput() { stop(); }

void CapturedOutput::stop() {
  if (!_running) return;
  _running = false;
  out = testing::internal::GetCapturedStdout();
  err = testing::internal::GetCapturedStderr();
}

void StoreClient::open(key_t first, key_t second, key_t size) {
  CapturedOutput output;
  const auto keep = [&] {
    output.stop();
    out = output.out;
    err = output.err;
  };
  try {
    access.InitializeShareMemory(first, second, size);
  } catch (...) {
    keep();
    throw;
  }
  keep();
}

void StoreClient::fill(int segment, const TestTable& table) {
  IPVector& ranges = access.ipVector(segment);
  access.ResizeIpBuffer(segment, table.ranges.size());
  ranges.clear();
  for (const ravel::IPAttribute& r : table.ranges) appendNode(r, &ranges);
  for (int k = 0; k < 8; ++k) {
    const auto& entries = table.codes[static_cast<std::size_t>(k)];
    access.ResizeCodeBuffer(segment, k, entries.size());
    access.codeVector(k, segment).clear();
    for (const ravel::CodeInfo& entry : entries)
      tolvar::appendNode(entry, &access.codeVector(k, segment));
  }
}

void StoreClient::announce(int segment, std::uint32_t ipStatus, std::uint32_t codeStatus) {
  MemoryHead head;
  access.ReadMemoryHead(segment, &head);
  head.ip_usable = ipStatus;
  head.code_usable = codeStatus;
  access.WriteMemoryHead(segment, head);
}

void publishImage(const ShmKeys& keys, const TestTable& table) {
  StoreClient writer;
  writer.open(keys);
  writer.fill(0, table);
  writer.access.CopyShareMemory(0, 1);
  writer.announce(0, 1, 1);
}

testing::AssertionResult answersFrom(StoreClient& client, const TestTable& table) {
  if (client.access.hasInitialized() != 3)
    return testing::AssertionFailure() << "readiness " << client.access.hasInitialized();
  if (client.access.cltMd5() != digestOf(table.ranges))
    return testing::AssertionFailure() << "digest " << client.access.cltMd5();
  for (const ravel::IPAttribute& r : table.ranges) {
    ravel::IPInfo info;
    if (!client.api.getIPInfo(r.startIP, &info) || info.district != r.place)
      return testing::AssertionFailure() << "no answer for " << r.startIP;
  }
  for (int k = 0; k < 8; ++k) {
    for (const ravel::CodeInfo& c : table.codes[static_cast<std::size_t>(k)]) {
      if (client.access.GetCodeInfoById(k, static_cast<std::uint64_t>(c.ID)) != c.content)
        return testing::AssertionFailure() << "no name for " << c.ID << " in table " << k;
    }
  }
  return testing::AssertionSuccess();
}

}  // namespace tolvar_test
