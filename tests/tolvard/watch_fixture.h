#pragma once

#include <nlohmann/json.hpp>

#include "tests/tolvard/serve_fixture.h"

namespace tolvar_test {

/// Tests with a service and clients of it, all of them processes.
class WatchFixture : public ServeFixture {
 protected:
  /// Words of a `tolvar watch` whose change checks come every three seconds: often enough to wait
  /// for, and long enough for a download to end before the next check ends it.
  static std::vector<std::string> watch(const std::vector<std::string>& arguments) {
    std::vector<std::string> words{TOLVAR_TOOL, "watch", "--time-scale", "200"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
  }

  static ToolRun runWatch(const std::vector<std::string>& arguments) {
    const std::vector<std::string> words = watch(arguments);
    return runTool(TOLVAR_TOOL, {words.begin() + 1, words.end()});
  }

  static ToolRun lookup(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "lookup");
    return runTool(TOLVAR_TOOL, arguments);
  }

  /// Digest of the version that is served.
  std::string newestDigest() const {
    const ToolRun versions = tolvard({"versions", "--json"});
    return nlohmann::json::parse(versions.out).back().at("digest");
  }

  /// Waits until the client says that it answers from the table with this digest.
  static void awaitDigest(ChildProcess& client, const std::string& digest) {
    client.awaitLine("ready=yes digest=" + digest, 60000);
  }
};

}  // namespace tolvar_test
