#include "tools/tolvard/conf_command.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "tools/tolvard/conf_fields.h"
#include "tools/tolvard/text_output.h"

namespace tolvar::tools {

using service::TableStore;

void ConfCommand::declare(CLI::App& app) {
  app.require_subcommand(1);
  CLI::App* const get = app.add_subcommand("get", "Show the configuration of the clients");
  _set = app.add_subcommand("set", "Change it; its version rises by itself");
  _set->add_option("FIELD=VALUE", _assignments,
                   "statisOpen=true|false      report the names of hits\n"
                   "simpleLogCitys=A,B,...     cities whose hits are sampled (or a JSON array)\n"
                   "simplingRate=0..10000      samples in 10000 lookups\n"
                   "logBufferLimit=N           sampled lines that may wait for delivery\n"
                   "logUnknownIp=true|false    sample addresses without a range")
      ->required();
  for (CLI::App* const command : {get, _set}) {
    _store.declare(*command);
    command->add_flag("--json", _json, "Print it as JSON");
  }
}

void ConfCommand::show(const ravel::ClientConf& conf) const {
  if (_json) {
    printJson({{"statisOpen", conf.statisOpen},
               {"simpleLogCitys", conf.simpleLogCitys},
               {"simplingRate", conf.simplingRate},
               {"logBufferLimit", conf.logBufferLimit},
               {"logUnknownIp", conf.logUnknownIp},
               {"confVersion", conf.confVersion}});
    return;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& [name, value] : confFields(conf)) rows.push_back({name, printable(value)});
  print(alignedTable(rows, {}));
}

ExitStatus ConfCommand::set() const {
  TableStore store = _store.open(TableStore::Mode::ReadWrite);
  const ravel::ClientConf valid = store.changeConf([this](ravel::ClientConf& conf) {
    for (const std::string& assignment : _assignments) setConfField(conf, assignment);
  });
  try {
    show(valid);
  } catch (const OutputLost& lost) {
    throw lost.after("the configuration was set");
  }
  return kExitDone;
}

ExitStatus ConfCommand::run() const {
  if (_set->parsed()) return set();
  show(_store.open(TableStore::Mode::ReadOnly).conf());
  return kExitDone;
}

}  // namespace tolvar::tools
