#include "tests/crash/whole_image.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "platform/interprocess_lock.h"
#include "tests/src/update/segment_view.h"

namespace tolvar_test {
namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

using CodeList = std::vector<std::string>;

std::string textOf(std::int64_t type, std::int64_t id, const std::string& name) {
  return std::to_string(type) + " " + std::to_string(id) + " " + name;
}

CodeList codesIn(const SegmentView& segment) {
  CodeList list;
  for (int table = 0; table < 8; ++table) {
    for (const StoredCode& code : segment.codes(table))
      list.push_back(textOf(code.type, code.id, code.name));
  }
  std::sort(list.begin(), list.end());
  return list;
}

CodeList codesOf(const Version& version) {
  CodeList list;
  for (const ravel::CodeInfo& code : tableOf(version).codes)
    list.push_back(textOf(code.codeType, code.ID, code.content));
  std::sort(list.begin(), list.end());
  return list;
}

std::string place(key_t key) { return "segment behind key " + std::to_string(key); }

/// Every lookup of the client answers with one version's row, and with names of one version.
void checkAnswers(CrashHost& host, const Halves& seen, const std::vector<Version>& versions) {
  const auto version = std::find_if(versions.begin(), versions.end(),
                                    [&](const Version& v) { return v.number == seen.ranges; });
  if (host.client.status().digest != digestOf(tableOf(*version).rows))
    fail("the client's digest is not that of version " + std::to_string(seen.ranges));
  const std::string mark = "v" + std::to_string(seen.names) + " ";
  for (const ravel::IPProperty& row : tableOf(*version).rows) {
    ravel::IPInfo info;
    IPHumanMessage names;
    if (!host.client.getIPInfo(row.startIP + 5, &info)) fail("a range is not found");
    if (versionOf(row.startIP, info) != seen.ranges) fail("an answer mixes versions");
    if (!host.client.getIPInfo(row.startIP + 5, &names)) fail("a range is not found by names");
    if (seen.ranges == seen.names && names.m_oper != mark + "oper")
      fail("a name is \"" + names.m_oper + "\"");
    if (host.client.getIPInfo(row.endIP + 1, &info)) fail("a gap is answered");
  }
  for (std::size_t i = 0; i < 3; ++i) {
    const std::string city = host.client.getCityByID(static_cast<std::uint32_t>(1000 + i));
    if (!city.empty() && city.rfind(mark, 0) != 0) fail("a city is \"" + city + "\"");
  }
}

}  // namespace

Halves halvesOf(key_t key, const std::vector<Version>& versions) {
  Halves halves;
  const SegmentView segment(key);
  if (!segment.exists() || segment.ipStatus() != 1 || segment.codeStatus() != 1) return halves;
  const std::string digest = digestOf(segment.ranges());
  const CodeList codes = codesIn(segment);
  for (const Version& version : versions) {
    if (digest == digestOf(tableOf(version).rows)) halves.ranges = version.number;
    if (codes == codesOf(version)) halves.names = version.number;
  }
  if (halves.ranges == 0) {
    fail(place(key) + " is ready with " + std::to_string(segment.nodes(0)) +
         " ranges of no version published");
  }
  if (halves.names == 0) {
    fail(place(key) + " is ready with " + std::to_string(codes.size()) +
         " names of no version published");
  }
  return halves;
}

Halves seenByAStart(CrashHost& host, const std::vector<Version>& versions, bool undamaged) {
  {
    qel::InterprocessLock lock;
    if (!lock.acquire(host.keys.size(), 0)) fail("the lock is held");
  }
  bool anyReady = false;
  for (const key_t key : {host.keys.data0(), host.keys.data1()})
    if (undamaged && halvesOf(key, versions).ranges != 0) anyReady = true;
  host.start();
  if (undamaged && host.ready() != anyReady)
    fail(anyReady ? "a ready segment was not used" : "no segment is ready, but the client is");
  if (!host.ready()) return {};
  const bool second = host.access.vectorIP() == &host.access.ipVector(1);
  const Halves seen = halvesOf(second ? host.keys.data1() : host.keys.data0(), versions);
  if (seen.ranges == 0) fail("the segment in use is not ready");
  checkAnswers(host, seen, versions);
  return seen;
}

void expectBothHold(const ShmKeys& keys, const Version& version) {
  for (const key_t key : {keys.data0(), keys.data1()}) {
    const Halves halves = halvesOf(key, {version});
    if (halves.ranges != version.number || halves.names != version.number)
      fail(place(key) + " does not hold version " + std::to_string(version.number));
  }
}

}  // namespace tolvar_test
