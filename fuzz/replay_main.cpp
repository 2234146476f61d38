// Runs a target without a fuzzer: over every file of the folders and files named, and over a fixed
// sequence of changes to each.
//
// usage: PROGRAM [--changes N] PATH...
//
// A finding ends the process; the file that it began with is named on standard error.

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* count, char*** arguments);

namespace {

using Bytes = std::vector<std::uint8_t>;

void run(const Bytes& input) { LLVMFuzzerTestOneInput(input.data(), input.size()); }

void change(std::mt19937& random, Bytes* bytes) {
  const std::size_t at = bytes->empty() ? 0 : random() % bytes->size();
  const auto place = bytes->begin() + static_cast<std::ptrdiff_t>(at);
  const auto byte = static_cast<std::uint8_t>(random());
  switch (random() % 4) {
    case 0: bytes->insert(place, byte); break;
    case 1:
      if (!bytes->empty()) bytes->erase(place);
      break;
    case 2: bytes->resize(at); break;
    default:
      if (!bytes->empty()) *place = byte;
      break;
  }
}

Bytes contentOf(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::filesystem::path> filesIn(const char* path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(path))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

void replay(const std::filesystem::path& path, int changes) {
  dprintf(STDERR_FILENO, "%s\n", path.c_str());
  const Bytes original = contentOf(path);
  run(original);
  std::mt19937 random(static_cast<unsigned>(original.size()));
  Bytes changed = original;
  for (int i = 0; i < changes; ++i) {
    if (i % 8 == 0) changed = original;
    change(random, &changed);
    run(changed);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  int changes = 0;
  std::size_t files = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--changes") == 0 && i + 1 < argc) {
      changes = std::atoi(argv[++i]);
      continue;
    }
    for (const auto& path : filesIn(argv[i])) {
      replay(path, changes);
      ++files;
    }
  }
  if (files == 0) dprintf(STDERR_FILENO, "no input; usage: %s [--changes N] PATH...\n", argv[0]);
  return files == 0 ? 2 : 0;
}
