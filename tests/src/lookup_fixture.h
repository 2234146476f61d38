#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/src/store_fixture.h"
#include "tests/support/fake_service.h"

namespace tolvar_test {

/// A client whose tables and configuration are set directly, and what it reports to the service.
class LookupTest : public testing::Test {
 protected:
  /// Makes `ranges` and `names` what lookups read.
  void publish() {
    std::unordered_map<std::uint64_t, ravel::CodeInfo> maps[8];
    for (int k = 0; k < 8; ++k) {
      for (const auto& [id, name] : names[k]) {
        ravel::CodeInfo& entry = maps[k][id];
        entry.codeType = k + 1;
        entry.ID = static_cast<std::int64_t>(id);
        entry.content = name;
      }
    }
    client.access.publishAll(ranges, maps);
  }

  /// Installs a configuration as the update thread does.
  void configure(const std::function<void(ravel::ClientConf&)>& change) {
    ClientConfWrapper& update = client.access.clientConf().getUpdateData();
    update.conf = ravel::ClientConf();
    change(update.conf);
    update.citys.clear();
    update.citys.insert(update.conf.simpleLogCitys.begin(), update.conf.simpleLogCitys.end());
    client.access.clientConf().swap();
  }

  /// "TYPE NAME COUNT" of everything reported so far.
  std::vector<std::string> reportedCounts() {
    deliver();
    return _counts;
  }

  std::vector<std::string> reportedLines() {
    deliver();
    return _lines;
  }

  StoreClient client;
  ravel::vIPProperty ranges;
  std::map<std::uint64_t, std::string> names[8];

 private:
  void deliver() {
    const auto service = std::make_shared<FakeService>();
    service->reportCounts = [this](const std::vector<ravel::ReportCount>& counts, std::uint64_t) {
      for (const ravel::ReportCount& count : counts)
        _counts.push_back(std::to_string(count.info.type) + " " + count.info.name + " " +
                          std::to_string(count.count));
    };
    service->reportLines = [this](const std::vector<std::string>& lines, std::uint64_t) {
      _lines.insert(_lines.end(), lines.begin(), lines.end());
    };
    client.access.report().setTolvarPrx(fakeProxy(service));
    client.access.report().start();
    client.access.report().stop();  // delivers what is left
  }

  std::vector<std::string> _counts, _lines;
};

}  // namespace tolvar_test
