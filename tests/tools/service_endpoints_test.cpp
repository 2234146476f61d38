#include "tools/tolvar/service_endpoints.h"

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

namespace {

using tolvar::tools::parseEndpoints;
using List = std::vector<std::string>;

TEST(ServiceEndpoints, TakesEveryFormAndSeveralWithCommas) {
  EXPECT_EQ(
      parseEndpoints({"127.0.0.1:1,[::1]:65535", "unix:/run/tolvard.sock", "a-b.example:443"}),
      (List{"127.0.0.1:1", "[::1]:65535", "unix:/run/tolvard.sock", "a-b.example:443"}));
}

TEST(ServiceEndpoints, NonsenseIsRefused) {
  for (const char* text : {"",
                           ",",
                           ",,",
                           "a:1,",
                           ",a:1",
                           "localhost",
                           "localhost:",
                           "localhost:abc",
                           "localhost:0",
                           "localhost:99999",
                           "127.0.0.1:116497",
                           "host:-1",
                           "host:1x",
                           ":1",
                           "::1:5",
                           "[::1]",
                           "[host]:1",
                           "unix:",
                           "a:1 b:2",
                           "a:1:2",
                           "http://host:1"})
    EXPECT_THROW(parseEndpoints({text}), CLI::ValidationError) << text;
}

TEST(ServiceEndpoints, TheRefusalSaysWhatIsExpected) {
  try {
    parseEndpoints({"127.0.0.1:1,localhost:99999"});
    FAIL() << "nothing was thrown";
  } catch (const CLI::ValidationError& error) {
    EXPECT_STREQ(
        error.what(),
        "--service: \"localhost:99999\" is no address; expected HOST:PORT with a port from "
        "1 to 65535, [IPV6]:PORT or unix:PATH");
  }
}

}  // namespace
