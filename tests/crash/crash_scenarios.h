#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/crash/crash_host.h"
#include "tests/crash/forked.h"

namespace tolvar_test {

/// What one process does to an image while it is killed, and what others may find afterwards.
struct CrashScenario {
  std::string name;
  /// Makes the image that everything begins with; runs in a process of its own.
  std::function<void(const ShmKeys&)> prepare;
  /// What the process does that is killed.
  std::function<void(const ShmKeys&)> act;
  /// What either half of an image may be afterwards.
  std::vector<Version> versions;
  /// There was a whole image before, so there must be one after every kill.
  bool staysReady = true;
  /// The process is killed at every so-manieth change; more than 1 for the expensive ones, with
  /// full-size segments.
  int stride = 1;
  /// The changes at which the process is killed. Scenarios with full-size segments may leave out
  /// those that one with small segments has in the same order.
  PointFilter counts = everyPoint;
  /// Nobody damaged the image that everything begins with.
  bool undamaged = true;
};

const std::vector<CrashScenario>& crashScenarios();

}  // namespace tolvar_test
