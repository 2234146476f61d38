#include "platform/local_time.h"

#include <gtest/gtest.h>
#include <stdlib.h>

namespace {

TEST(LocalTime, IsThatOfTheProcessesTimeZone) {
  setenv("TZ", "UTC-8", 1);
  tzset();
  const std::tm local = qel::localTime(1700000000);  // 2023-11-14 22:13:20 UTC
  EXPECT_EQ(local.tm_year, 2023 - 1900);
  EXPECT_EQ(local.tm_mon, 11 - 1);
  EXPECT_EQ(local.tm_mday, 15);
  EXPECT_EQ(local.tm_hour, 6);
  EXPECT_EQ(local.tm_min, 13);
  EXPECT_EQ(local.tm_sec, 20);
}

}  // namespace
