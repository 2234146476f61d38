#include "tools/tolvard/versions_command.h"

#include <CLI/CLI.hpp>
#include <ctime>
#include <nlohmann/json.hpp>

#include "service/import_guard.h"
#include "tools/tolvard/text_output.h"

namespace tolvar::tools {
namespace {

using service::StoredVersion;
using service::TableStore;

std::vector<std::string> rowOf(const StoredVersion& version, bool isServed) {
  const auto number = [](std::int64_t value) {
    return service::grouped(static_cast<std::uint64_t>(value));
  };
  return {isServed ? "*" : "",    std::to_string(version.number), version.createdAt,
          number(version.ranges), number(version.addresses),      number(version.codes),
          version.digest,         printable(version.source)};
}

}  // namespace

void VersionsCommand::declare(CLI::App& app) {
  _store.declare(app);
  app.add_flag("--json", _json, "Print a JSON array, oldest version first");
}

ExitStatus VersionsCommand::run() const {
  const auto versions = _store.open(TableStore::Mode::ReadOnly).versions();
  if (_json) {
    nlohmann::json document = nlohmann::json::array();
    for (const StoredVersion& version : versions) {
      document.push_back(jsonOf(version));
      document.back()["served"] = &version == &versions.back();
    }
    printJson(document);
    return kExitDone;
  }
  std::vector<std::vector<std::string>> rows{
      {"", "version", "made (UTC)", "ranges", "addresses", "codes", "digest", "from"}};
  for (const StoredVersion& version : versions)
    rows.push_back(rowOf(version, &version == &versions.back()));
  print(versions.empty() ? "no versions yet; `tolvard import FILE` makes the first\n"
                         : alignedTable(rows, {1, 3, 4, 5}));
  return kExitDone;
}

void RollbackCommand::declare(CLI::App& app) {
  app.add_option("VERSION", _version, "Number of the version, as `tolvard versions` shows it")
      ->required()
      ->check(versionNumberFault);
  _store.declare(app);
  app.add_flag("--json", _json, "Print the new version as JSON");
}

ExitStatus RollbackCommand::run() const {
  TableStore store = _store.open(TableStore::Mode::ReadWrite);
  const auto wanted = store.find(_version);
  const auto newest = store.newest();
  if (wanted && wanted->number == newest->number) {
    if (_json)
      printJson(jsonOf(*newest));
    else
      print("nothing to do: version " + std::to_string(_version) + " is the one served\n");
    return kExitDone;
  }
  // A damaged version is found before it is served, not after.
  if (wanted) store.load(*wanted);
  const StoredVersion added = store.rollback(_version, std::time(nullptr));
  const std::string done = "version " + std::to_string(added.number) +
                           " has the content of version " + std::to_string(_version);
  try {
    if (_json)
      printJson(jsonOf(added));
    else
      print(done + ", digest " + added.digest + "\n");
  } catch (const OutputLost& lost) {
    throw lost.after(done);
  }
  return kExitDone;
}

}  // namespace tolvar::tools
