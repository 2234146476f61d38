#include "tests/tolvard/tolvard_process.h"

namespace tolvar_test {
namespace {

std::vector<std::string> serveCommand(const std::string& database, const std::string& listen,
                                      const std::vector<std::string>& arguments) {
  std::vector<std::string> words{TOLVARD, "serve", "--db", database, "--listen", listen};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

}  // namespace

TolvardProcess::TolvardProcess(const std::string& database,
                               const std::vector<std::string>& arguments, const std::string& listen)
    : ChildProcess(serveCommand(database, listen, arguments)),
      _address(fieldOf(awaitLine("event=listening"), "address")) {}

}  // namespace tolvar_test
