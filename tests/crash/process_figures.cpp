#include "tests/crash/process_figures.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace tolvar_test {

ProcessFigures figuresOf(pid_t process) {
  ProcessFigures figures;
  const std::string folder = "/proc/" + std::to_string(process);
  std::ifstream status(folder + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("RssAnon:", 0) == 0) figures.privateKib = std::stoul(line.substr(8));
  }
  std::error_code ended;
  for (std::filesystem::directory_iterator each(folder + "/fd", ended), end; !ended && each != end;
       each.increment(ended))
    ++figures.descriptors;
  // ADDRESS PERMISSIONS OFFSET DEVICE IDENTIFIER /SYSV... (deleted)
  std::ifstream maps(folder + "/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/SYSV") == std::string::npos) continue;
    std::istringstream fields(line);
    std::string skipped;
    unsigned long identifier = 0;
    for (int i = 0; i < 4; ++i) fields >> skipped;
    fields >> identifier;
    figures.segments.insert(identifier);
  }
  return figures;
}

}  // namespace tolvar_test
