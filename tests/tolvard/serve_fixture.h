#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/tolvard/service_client.h"
#include "tests/tolvard/tolvard_process.h"
#include "tests/tools/run_tool.h"

namespace tolvar_test {

/// Tests with a database and the program itself.
class ServeFixture : public testing::Test {
 protected:
  std::string database() const { return directory.file("t.db"); }

  ToolRun tolvard(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--db", database()});
    return runTool(TOLVARD, arguments);
  }

  /// Imports whatever it takes away.
  void import(const std::string& path) const {
    const ToolRun result = tolvard({"import", "--force", path});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
  }

  void importText(const std::string& text) const {
    writeFile(directory.file("table.csv"), text);
    import(directory.file("table.csv"));
  }

  static std::string rows(std::uint32_t count, const std::string& oper) {
    std::string text = "start,end,oper\n";
    for (std::uint32_t i = 0; i < count; ++i)
      text += std::to_string(i * 16) + "," + std::to_string(i * 16 + 9) + "," + oper + "\n";
    return text;
  }

  const TempDir directory;
};

}  // namespace tolvar_test
