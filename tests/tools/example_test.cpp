#include <gtest/gtest.h>

#include "tests/support/shm_keys.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/run_tool.h"

namespace {

TEST(Example, AnswersOnItsFirstRunAndFromTheImageOnItsSecond) {
  const tolvar_test::ShmKeys keys;
  const tolvar_test::WorkingDirectory directory;
  const std::vector<std::string> arguments{std::to_string(keys.data0()), TOLVAR_SAMPLE, "8.8.8.8",
                                           "77.7.7.7"};
  const std::string expected =
      "8.8.8.8 country=United States province=Western Shore city=Mesa Vista district= "
      "extend=resolver oper=Granite Backbone nettype=data centre apn= flable=JN\n"
      "77.7.7.7 not found\n";
  const tolvar_test::ToolRun first = tolvar_test::runTool(TOLVAR_EXAMPLE, arguments);
  EXPECT_EQ(first.exitStatus, 0) << first.err;
  EXPECT_EQ(first.out, expected);

  const tolvar_test::ToolRun second = tolvar_test::runTool(TOLVAR_EXAMPLE, arguments);
  EXPECT_EQ(second.out, expected);
  const std::string log = tolvar_test::readFile(directory.file("Tolvar/API/Tolvar.API.log"));
  EXPECT_NE(log.find("choose a ready share memory: "), std::string::npos);
  // One download in both runs together.
  const std::string download = "begin small download";
  EXPECT_EQ(log.find(download), log.rfind(download));
}

}  // namespace
