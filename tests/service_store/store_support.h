#pragma once

#include <string>

#include "service/store/table_store.h"
#include "tests/service/import_support.h"
#include "tests/support/temp_dir.h"

namespace tolvar_test {

/// A store in a directory of the test's own, and what importing texts into it takes.
class StoreFixture {
 public:
  std::string path() const { return _directory.file("t.db"); }

  tolvar::service::TableStore open(
      tolvar::service::TableStore::Mode mode = tolvar::service::TableStore::Mode::Create) const {
    return tolvar::service::TableStore(path(), mode);
  }

  /// Imports CSV text with the ids that the store knows.
  tolvar::service::StoredVersion import(tolvar::service::TableStore& store, const std::string& text,
                                        std::int64_t now = 1000, std::size_t keep = 5) const {
    tolvar::service::ImportOptions options;
    options.ids = store.ids();
    tolvar::service::ImportResult result = csv(text, options);
    const tolvar::service::TableVersion table(std::move(result.table), 1);
    const auto newest = store.newest();
    return store.add({table, result.ids, "t.csv", now, keep, newest ? newest->number : 0});
  }

 private:
  TempDir _directory;
};

inline constexpr const char* kOneRow = "start,end,country,oper\n1.0.0.0,1.0.0.255,DE,Netz\n";
inline constexpr const char* kTwoRows =
    "start,end,country,oper\n1.0.0.0,1.0.0.255,DE,Funk\n2.0.0.0,2.0.0.127,FR,Netz\n";

}  // namespace tolvar_test
