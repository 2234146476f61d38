#include "tests/crash/crash_host.h"

#include <stdexcept>
#include <string>

namespace tolvar_test {
namespace {

constexpr int kMostPasses = 2000;

}  // namespace

Table tableOf(const Version& version) {
  Table table = selfCheckingTable(version.number, version.rows);
  const std::string mark = "v" + std::to_string(version.number) + " city ";
  for (std::size_t i = 0; i < version.cities; ++i)
    table.codes.push_back(code(3, static_cast<std::int64_t>(1000 + i), mark + std::to_string(i)));
  return table;
}

CrashHost::CrashHost(const ShmKeys& imageKeys) : keys(imageKeys) {
  access.tolvarPrx() = fakeProxy(service);
  access.fTolvarPrx() = fakeFastProxy(service);
}

void CrashHost::start() { access.InitializeShareMemory(keys.data0(), keys.data1(), keys.size()); }

void CrashHost::publish(const Version& version) {
  server.publish(tableOf(version));
  access.lastCheckFileChanged() = 0;
  access.checkChange();
  finish();
}

void CrashHost::publishNames(const Version& version) {
  server.publish(tableOf(version));
  access.isCheckingCode() = true;
  finish();
}

void CrashHost::finish() {
  for (int pass = 0; pass < kMostPasses; ++pass) {
    access.totalDownloadRequest();
    access.checkCodeChangeRequest();
    if (!access.isTotalDownLoading() && !access.isCheckingCode()) return;
  }
  throw std::runtime_error("a publication did not come to its end: " + client.status().lastError);
}

}  // namespace tolvar_test
