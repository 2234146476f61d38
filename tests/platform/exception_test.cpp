#include "platform/exception.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/assertion.h"

namespace {

using qel::ZU_Exception;

TEST(Exception, CarriesItsTextAndNoCode) {
  const ZU_Exception plain("service said no");
  EXPECT_STREQ(plain.what(), "service said no");
  EXPECT_EQ(plain.getErrCode(), 0);
}

TEST(Exception, AppendsNumberAndTextOfTheErrno) {
  const ZU_Exception missing("cannot open x", ENOENT);
  EXPECT_STREQ(missing.what(), "cannot open x (errno 2: No such file or directory)");
  EXPECT_EQ(missing.getErrCode(), ENOENT);
  const ZU_Exception full("cannot reserve", ENOSPC);
  EXPECT_STREQ(full.what(), "cannot reserve (errno 28: No space left on device)");
}

TEST(Exception, IsCaughtAsAStandardException) {
  try {
    throw ZU_Exception("text", EACCES);
  } catch (const std::exception& caught) {
    EXPECT_STREQ(caught.what(), "text (errno 13: Permission denied)");
  }
}

TEST(Exception, KeepsItsTextWhenCopied) {
  ZU_Exception copy("first");
  {
    const ZU_Exception second("second", EINTR);
    copy = second;
  }
  EXPECT_STREQ(copy.what(), "second (errno 4: Interrupted system call)");
  EXPECT_EQ(copy.getErrCode(), EINTR);
}

TEST(AssertionDeathTest, WritesTheGivenTextsAndAborts) {
  EXPECT_EXIT(
      qel::assertionFailed("size < 128u", "../include/memVector", 57, "void f(int)"),
      testing::KilledBySignal(SIGABRT),
      "^\\.\\./include/memVector:57: void f\\(int\\): Assertion `size < 128u' failed\\.\n$");
}

}  // namespace
