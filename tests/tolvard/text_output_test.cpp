#include "tools/tolvard/text_output.h"

#include <gtest/gtest.h>

namespace {

using namespace tolvar::tools;

TEST(TextOutput, ColumnsLineUpByCharacters) {
  EXPECT_EQ(alignedTable({{"name", "n"},
                          {"S\xC3\xBC"
                           "d",
                           "100"},
                          {"x", "7"}},
                         {1}),
            "name    n\n"
            "S\xC3\xBC"
            "d   100\n"
            "x       7\n");
}

TEST(TextOutput, RowsHaveNoBlanksAtTheirEnd) {
  EXPECT_EQ(alignedTable({{"a", "long"}, {"b", ""}}, {}), "a  long\nb\n");
}

TEST(TextOutput, ControlCharactersDoNotReachTheTerminal) {
  EXPECT_EQ(printable("a\x1b[2J\n"), "a\\x1B[2J\\x0A");
  EXPECT_EQ(printable("S\xC3\xBC"
                      "d"),
            "S\xC3\xBC"
            "d");
  // A terminal takes U+009B for the beginning of a command, too.
  EXPECT_EQ(printable("\xC3\xBC\xC2\x9B"
                      "2J"),
            "\xC3\xBC\\xC2\\x9B2J");
  EXPECT_EQ(printable("\xff"
                      "x"),
            "\\xFFx");
}

}  // namespace
