#include "tools/tolvard/server/download_gate.h"

#include <gtest/gtest.h>

#include "tests/support/manual_clock.h"

namespace {

using tolvar::DownloadGate;
using tolvar_test::ManualClock;

TEST(DownloadGate, AdmitsUpToItsLimitAndThenWaitsForAnEnd) {
  ManualClock clock;
  DownloadGate gate(2, clock);
  EXPECT_TRUE(gate.admit("a"));
  EXPECT_TRUE(gate.admit("b"));
  EXPECT_FALSE(gate.admit("c"));
  EXPECT_TRUE(gate.admit("a"));  // has its place already
  gate.finished("a");
  EXPECT_TRUE(gate.admit("c"));
  EXPECT_EQ(gate.active(), 2u);
}

TEST(DownloadGate, PagesKeepAPlaceAndSilenceLosesIt) {
  ManualClock clock;
  DownloadGate gate(1, clock);
  ASSERT_TRUE(gate.admit("a"));
  clock.advance(DownloadGate::kIdleMillis - 1);
  gate.pageSent("a");
  clock.advance(DownloadGate::kIdleMillis - 1);
  EXPECT_FALSE(gate.admit("b"));
  clock.advance(1);
  EXPECT_EQ(gate.active(), 0u);
  EXPECT_TRUE(gate.admit("b"));
}

TEST(DownloadGate, PagesOfStrangersAreCountedWhileThereIsRoom) {
  ManualClock clock;
  DownloadGate gate(1, clock);
  gate.pageSent("a");
  gate.pageSent("b");
  EXPECT_EQ(gate.active(), 1u);
  EXPECT_FALSE(gate.admit("c"));
}

}  // namespace
