#include "src/client_internals.h"

#include <numeric>
#include <utility>

namespace tolvar {
namespace {

std::size_t entriesOf(const ClientInternals::CodeMaps& maps) {
  return std::accumulate(std::begin(maps), std::end(maps), std::size_t{0},
                         [](std::size_t sum, const auto& map) { return sum + map.size(); });
}

std::shared_ptr<const RangeIndex> indexOf(const ravel::vIPProperty& ranges) {
  return std::make_shared<const RangeIndex>(RangeIndex::build(ranges));
}

}  // namespace

void ClientInternals::buildRanges(const ravel::vIPProperty& ranges) {
  auto index = indexOf(ranges);
  const auto current = tables.read();
  built = LookupSnapshot::withRanges(current.get(), std::move(index));
}

void ClientInternals::publishRanges(std::size_t ranges, std::string digest) noexcept {
  replaceTables();
  std::lock_guard<std::mutex> hold(statusMutex);
  status.ipReady = true;
  status.ranges = ranges;
  status.digest = std::move(digest);
  status.lastPublished = clock.time();
}

void ClientInternals::buildCodes(std::shared_ptr<const CodeNames> names) {
  const auto current = tables.read();
  built = LookupSnapshot::withCodes(current.get(), std::move(names));
}

void ClientInternals::publishCodes(const CodeMaps& maps) noexcept {
  replaceTables();
  std::lock_guard<std::mutex> hold(statusMutex);
  status.codesReady = true;
  status.codeEntries = entriesOf(maps);
  ++status.codePublications;
}

void ClientInternals::buildAll(std::shared_ptr<const RangeIndex> ranges,
                               std::shared_ptr<const CodeNames> names) {
  built = LookupSnapshot::make(std::move(ranges), std::move(names));
}

void ClientInternals::publishBuilt(std::size_t ranges, const CodeMaps& maps) {
  replaceTables();
  std::lock_guard<std::mutex> hold(statusMutex);
  status.fromImage = true;
  status.ipReady = true;
  status.codesReady = true;
  status.ranges = ranges;
  status.codeEntries = entriesOf(maps);
  status.lastPublished = clock.time();
}

void ClientInternals::replaceTables() noexcept {
  retire();
  retired = tables.replace(std::move(built));
}

void ClientInternals::retire() noexcept {
  if (!retired) return;
  tables.synchronize();
  retired.reset();
}

void ClientInternals::noteImageDigest(const std::string& digest) {
  std::lock_guard<std::mutex> hold(statusMutex);
  status.imageDigest = digest;
  status.digest = digest;
}

}  // namespace tolvar
