#include "tests/transport_grpc/peak_memory.h"

#include <fstream>
#include <stdexcept>
#include <string>

namespace tolvar_test {
namespace {

long peakKib() {
  const std::string name = "VmHWM:";
  std::ifstream file("/proc/self/status");
  for (std::string line; std::getline(file, line);)
    if (line.starts_with(name)) return std::stol(line.substr(name.size()));
  throw std::runtime_error("there is no VmHWM in /proc/self/status");
}

/// Makes the peak what is in use now.
long resetPeak() {
  std::ofstream file("/proc/self/clear_refs");
  if (!(file << 5).flush()) throw std::runtime_error("cannot write /proc/self/clear_refs");
  return peakKib();
}

}  // namespace

PeakMemory::PeakMemory() : _beforeKib(resetPeak()) {}

long PeakMemory::growthKib() const { return peakKib() - _beforeKib; }

}  // namespace tolvar_test
