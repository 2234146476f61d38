#pragma once

namespace tolvar_test {

/// The most memory that this process has at a time while this lives, beyond what it had before.
class PeakMemory {
 public:
  PeakMemory();

  long growthKib() const;

 private:
  const long _beforeKib;
};

}  // namespace tolvar_test
