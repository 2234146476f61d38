#include "tools/tolvard/report_commands.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "service/import_guard.h"
#include "tools/tolvard/text_output.h"

namespace tolvar::tools {
namespace {

using service::TableStore;
using service::Usage;

std::string typeName(ravel::ReportType type) {
  switch (type) {
    case ravel::ECountry: return "country";
    case ravel::EProvince: return "province";
    case ravel::ECity: return "city";
    case ravel::EOperator: return "operator";
  }
  return std::to_string(static_cast<int>(type));
}

void printUsageJson(const Usage& usage) {
  nlohmann::json hits = nlohmann::json::array();
  for (const ravel::ReportCount& count : usage.counts) {
    hits.push_back(
        {{"type", typeName(count.info.type)}, {"name", count.info.name}, {"hits", count.count}});
  }
  printJson({{"hits", hits},
             {"lines", usage.lines},
             {"droppedHits", usage.droppedHits},
             {"droppedLines", usage.droppedLines}});
}

void printUsage(const Usage& usage, std::size_t top) {
  std::vector<std::vector<std::string>> rows{{"hits", "type", "name"}};
  for (const ravel::ReportCount& count : usage.counts) {
    if (rows.size() > top) break;
    rows.push_back(
        {service::grouped(count.count), typeName(count.info.type), printable(count.info.name)});
  }
  std::string text = usage.counts.empty() ? "no hits were reported\n" : alignedTable(rows, {0});
  if (usage.counts.size() > top)
    text += "and " + service::grouped(usage.counts.size() - top) + " more names; see --top\n";
  if (!usage.lines.empty())
    text += "\nsampled lines, the last of " + service::grouped(usage.lines.size()) + ":\n";
  const std::size_t first = usage.lines.size() > top ? usage.lines.size() - top : 0;
  for (std::size_t i = first; i < usage.lines.size(); ++i)
    text += "  " + printable(usage.lines[i]) + "\n";
  if (usage.droppedHits + usage.droppedLines != 0) {
    text += "\nlost on the way: " + service::grouped(usage.droppedHits) + " hits, " +
            service::grouped(usage.droppedLines) + " lines\n";
  }
  print(text);
}

}  // namespace

void CheckCommand::declare(CLI::App& app) {
  _store.declare(app);
  app.add_flag("--json", _json, "Print the findings as JSON");
}

ExitStatus CheckCommand::run() const {
  try {
    return report(_store.open(TableStore::Mode::ReadOnly));
  } catch (const service::StoreDamage& damage) {
    // Too damaged to be opened; the text says what to do.
    if (_json)
      printJson({{"intact", false}, {"faults", nlohmann::json::array({damage.what()})}});
    else
      print(printable(damage.what()) + "\n");
    return kExitNo;
  }
}

ExitStatus CheckCommand::report(const TableStore& store) const {
  const std::vector<std::string> faults = store.check();
  const std::size_t versions = faults.empty() ? store.versions().size() : 0;
  if (_json) {
    printJson({{"intact", faults.empty()}, {"faults", faults}});
  } else if (faults.empty()) {
    print(_store.path + ": intact, " + std::to_string(versions) +
          (versions == 1 ? " version\n" : " versions\n"));
  } else {
    std::string text;
    for (const std::string& fault : faults) text += printable(fault) + "\n";
    print(text + "Restore the file from a backup, or import into a new one.\n");
  }
  return faults.empty() ? kExitDone : kExitNo;
}

void UsageCommand::declare(CLI::App& app) {
  _store.declare(app);
  app.add_option("--top", _top, "Names and lines to show (default: 20)")
      ->check(CLI::Range(0, 1000000))
      ->type_name("N");
  app.add_flag("--json", _json, "Print everything as JSON");
}

ExitStatus UsageCommand::run() const {
  const Usage usage = _store.open(TableStore::Mode::ReadOnly).usage();
  if (_json)
    printUsageJson(usage);
  else
    printUsage(usage, _top);
  return kExitDone;
}

}  // namespace tolvar::tools
