#include "tools/tolvard/store_option.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

namespace tolvar::tools {
namespace {

namespace fs = std::filesystem;

/// One that is not there is told by its name.
bool isSameFile(const std::string& left, const std::string& right) {
  std::error_code error;
  if (fs::equivalent(left, right, error)) return true;
  const auto nameOf = [&error](const std::string& file) {
    return fs::weakly_canonical(fs::absolute(file, error), error);
  };
  const fs::path name = nameOf(left);
  return !error && name == nameOf(right) && !error;
}

}  // namespace

void StoreOption::declare(CLI::App& app) {
  app.add_option("--db", path, "The database file (default: tolvar.db in the working directory)")
      ->check([](const std::string& name) {
        return name.empty() ? "the path is empty; name a file" : "";
      })
      ->type_name("FILE");
}

bool StoreOption::exists() const {
  std::error_code ignored;
  return fs::exists(path, ignored);
}

bool StoreOption::covers(const std::string& file) const {
  std::error_code ignored;
  // Next to the file that a link leads to, not next to the link.
  const std::string database = fs::weakly_canonical(path, ignored);
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    if (isSameFile(file, database + suffix)) return true;
  }
  return false;
}

service::TableStore StoreOption::open(service::TableStore::Mode mode) const {
  return service::TableStore(path, mode);
}

std::string versionNumberFault(const std::string& text) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  // A number that begins with 0 would be read as octal.
  if (error == std::errc() && stop == end && number > 0 && text.front() != '0') return "";
  return text + " is no number of a version; expected 1 to " + std::to_string(INT64_MAX);
}

nlohmann::json jsonOf(const service::StoredVersion& version) {
  return {{"version", version.number}, {"timesTamp", version.timesTamp}, {"digest", version.digest},
          {"ranges", version.ranges},  {"addresses", version.addresses}, {"codes", version.codes},
          {"source", version.source},  {"createdAt", version.createdAt}};
}

}  // namespace tolvar::tools
