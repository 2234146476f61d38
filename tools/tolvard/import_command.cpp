#include "tools/tolvard/import_command.h"

#include <CLI/CLI.hpp>
#include <ctime>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "service/csv_exporter.h"
#include "tolvar.pb.h"
#include "tools/tolvard/text_output.h"
#include "transport/grpc/page_codec.h"

namespace tolvar::tools {
namespace {

using service::TableStore;

nlohmann::json extentJson(const service::TableExtent& extent) {
  return {{"ranges", extent.ranges}, {"addresses", extent.addresses}, {"codes", extent.codes}};
}

using Outcome = ImportCommand::Outcome;

const char* nameOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::Imported: return "imported";
    case Outcome::Importable: return "importable";
    case Outcome::Unchanged: return "unchanged";
    default: return "refused";
  }
}

std::string textOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::Imported: return "imported as";
    case Outcome::Importable: return "would be imported";
    default: return "nothing to do: the same as";
  }
}

std::string changes(std::uint64_t added, std::uint64_t removed) {
  return "+" + service::grouped(added) + " -" + service::grouped(removed);
}

}  // namespace

void ImportCommand::declare(CLI::App& app) {
  app.add_option("FILE", _file,
                 "The table: CSV with a header, or start,end,country code with '#' comments")
      ->required();
  _store.declare(app);
  app.add_flag("--force", _force,
               "Import even what is empty, lost much, or is what is served already");
  app.add_flag("--dry-run", _dryRun,
               "Only show what would change, and whether it would be refused");
  app.add_option("--keep", _keep, "Versions to keep, the new one included (default: 5)")
      ->check(CLI::Range(1, 1000))
      ->type_name("N");
  app.add_option("--codes", _codes,
                 "Country names and numbers, the JSON file of the package iso-codes "
                 "(default: /usr/share/iso-codes/json/iso_3166-1.json)")
      ->type_name("FILE");
  app.add_flag("--json", _json, "Print the result as JSON");
}

void ImportCommand::readStore() {
  if (!_store.exists()) return;
  // An empty file is one whose first import was cut off.
  const TableStore store =
      _store.open(_dryRun ? TableStore::Mode::ReadOnly : TableStore::Mode::Create);
  if (auto newest = store.loadNewest([](const auto&) { return false; })) {
    _served = newest->stored;
    _servedTable = newest->table;
  }
  _options.ids = store.ids();
}

/// Reads the file once, because what comes through a pipe does not come twice.
void ImportCommand::readFile() {
  _options.isoCountriesPath = _codes;
  const auto source = service::TextSource::load(_file, service::kMaxImportBytes);
  _foreignIds = service::mergeIds(_options.ids, service::exportedIds(source));
  _imported = service::importTable(source, _options);
}

void ImportCommand::makeTable() {
  _table.emplace(std::move(_imported.table), 1);
  checkWire();
  _comparison = service::compareImport(_servedTable.get(), *_table);
}

/// A table that cannot be sent must not become the one served.
void ImportCommand::checkWire() const {
  v1::Codes message;
  try {
    wire::encodeCodes(_table->codes(), message);
  } catch (const wire::WireError& error) {
    throw std::runtime_error(_file + ": the table cannot be served: " + error.what());
  }
  if (message.ByteSizeLong() > static_cast<std::size_t>(wire::MAX_RECV_BUFFER))
    throw std::runtime_error(_file + ": the table cannot be served: its names take " +
                             service::grouped(message.ByteSizeLong()) + " bytes, clients accept " +
                             service::grouped(wire::MAX_RECV_BUFFER));
}

std::optional<service::StoredVersion> ImportCommand::store() {
  TableStore store = _store.open(TableStore::Mode::Create);
  try {
    const service::StoredVersion added = store.add(
        {*_table, _imported.ids, _file, std::time(nullptr), _keep, _served ? _served->number : 0});
    store.checkpoint();
    return added;
  } catch (const service::StoreError&) {
    // While a service has the file open, the log would keep what it grew to: the rest of the disk.
    store.checkpoint();
    throw;
  }
}

std::vector<std::string> ImportCommand::warnings() const {
  std::vector<std::string> texts;
  for (const service::ImportNote& note : _imported.warnings) texts.push_back(note.text());
  if (_foreignIds != 0) {
    texts.push_back(_file + ": " + service::grouped(_foreignIds) +
                    " of its #id lines were left out: the database knows these names or ids "
                    "otherwise");
  }
  const bool onlyCodes = !_comparison.isSame() && _served && _table->digest() == _served->digest;
  if (onlyCodes) {
    texts.push_back("only names differ from version " + std::to_string(_served->number) +
                    "; clients that hold its ranges keep the old names until a range changes, too");
  }
  return texts;
}

std::string ImportCommand::differences() const {
  const auto& [before, after] = std::pair(_comparison.served, _comparison.next);
  const auto row = [&](const char* what, std::uint64_t served, std::uint64_t next,
                       const std::string& change) {
    return std::vector<std::string>{what, before ? service::grouped(served) : "-",
                                    service::grouped(next), change};
  };
  const service::TableExtent none;
  const service::TableExtent& old = before ? *before : none;
  return alignedTable({{"", "served", "new", "change"},
                       row("ranges", old.ranges, after.ranges,
                           changes(_comparison.rangesAdded, _comparison.rangesRemoved)),
                       row("addresses", old.addresses, after.addresses, ""),
                       row("codes", old.codes, after.codes,
                           changes(_comparison.codesAdded, _comparison.codesRemoved))},
                      {1, 2, 3});
}

ExitStatus ImportCommand::report(Outcome outcome,
                                 const std::optional<service::StoredVersion>& stored) const {
  const ExitStatus status = outcome == Outcome::Refused ? kExitNo : kExitDone;
  if (_json) {
    nlohmann::json document{{"result", nameOf(outcome)},
                            {"dryRun", _dryRun},
                            {"digest", _table->digest()},
                            {"new", extentJson(_comparison.next)},
                            {"rangesAdded", _comparison.rangesAdded},
                            {"rangesRemoved", _comparison.rangesRemoved},
                            {"codesAdded", _comparison.codesAdded},
                            {"codesRemoved", _comparison.codesRemoved},
                            {"objections", _comparison.objections},
                            {"warnings", warnings()}};
    document["served"] = _comparison.served ? extentJson(*_comparison.served) : nlohmann::json();
    document["version"] = stored ? jsonOf(*stored) : nlohmann::json();
    printJson(document);
    return status;
  }
  printWarnings(warnings());
  print(differences());
  if (outcome == Outcome::Refused) {
    printRefusal();
  } else {
    const std::string number = stored ? " version " + std::to_string(stored->number) : "";
    print(textOf(outcome) + number + ", digest " + _table->digest() + "\n");
  }
  return status;
}

void ImportCommand::printRefusal() const {
  std::string text = _file + (_dryRun ? " would be refused:" : " is refused; nothing was changed:");
  for (const std::string& objection : _comparison.objections) text += "\n  " + objection;
  std::fprintf(stderr, "tolvard: %s\nUse --force to import it all the same.\n", text.c_str());
}

ExitStatus ImportCommand::run() {
  readStore();
  readFile();
  makeTable();
  if (!_comparison.isSafe() && !_force) return report(Outcome::Refused, std::nullopt);
  if (_comparison.isSame() && !_force) return report(Outcome::Unchanged, _served);
  if (_dryRun) return report(Outcome::Importable, std::nullopt);
  const auto added = store();
  try {
    return report(Outcome::Imported, added);
  } catch (const OutputLost& lost) {
    throw lost.after("version " + std::to_string(added->number) + " was imported");
  }
}

}  // namespace tolvar::tools
