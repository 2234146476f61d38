#include "tools/tolvard/server/listen_address.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

using testing::HasSubstr;
using tolvar::parseListenAddress;

TEST(ListenAddress, LoopbackIsLocal) {
  for (const char* text :
       {"127.0.0.1:0", "127.9.9.9:1", "localhost:50061", "[::1]:50061", "unix:/run/tolvard.sock"})
    EXPECT_TRUE(parseListenAddress(text).isLocal) << text;
}

TEST(ListenAddress, EverythingElseIsNot) {
  for (const char* text : {"0.0.0.0:1", "[::]:1", "192.0.2.1:1", "example.net:1",
                           "127.0.0.1.example.net:1", "128.0.0.1:1", "localhost.example.net:1"})
    EXPECT_FALSE(parseListenAddress(text).isLocal) << text;
}

TEST(ListenAddress, TheRealPortTakesTheZerosPlace) {
  EXPECT_EQ(parseListenAddress("127.0.0.1:0").withPort(4711), "127.0.0.1:4711");
  EXPECT_EQ(parseListenAddress("[::1]:0").withPort(4711), "[::1]:4711");
  EXPECT_EQ(parseListenAddress("unix:/x").withPort(1), "unix:/x");
}

TEST(ListenAddress, NonsenseIsRefused) {
  for (const char* text : {"", ":1", "host", "host:", "host:65536", "host:-1", "host:1x", "::1:5",
                           "[::1]", "[host]:1", "unix:", "host:+1"})
    EXPECT_THROW(parseListenAddress(text), std::invalid_argument) << text;
}

TEST(ListenAddress, AUnixSocketsPathHasTheSystemsLength) {
  EXPECT_EQ(parseListenAddress("unix:" + std::string(107, 'x')).path, std::string(107, 'x'));
  try {
    parseListenAddress("unix:" + std::string(108, 'x'));
    FAIL() << "the path is too long";
  } catch (const std::invalid_argument& error) {
    EXPECT_THAT(error.what(), HasSubstr("at most 107 bytes, this one has 108"));
  }
}

}  // namespace
