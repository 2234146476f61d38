#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace tolvar_test {

/// A file system in memory of a few pages' size, mounted on a directory. Nobody but the thread that
/// `onSmallDisk` runs and the processes it starts ever see it, and it goes when the last of them
/// ends, however that comes about.
class SmallDisk {
 public:
  explicit SmallDisk(std::string directory) : _directory(std::move(directory)) {}

  std::string file(const std::string& name) const { return _directory + "/" + name; }

  /// Bytes that still fit.
  std::uint64_t freeBytes() const;

  /// Takes up every byte that is free, until `empty`.
  void fill() const;
  void empty() const;

  /// Makes it larger. A failure fails the test.
  void grow(std::uint64_t bytes) const;

 private:
  std::string _directory;
};

/// Runs `body` with a disk of `bytes` bytes on the existing directory `directory`; may be called
/// from any thread. Returns why there can be none here, for want of the right to mount, and
/// does not run `body` then; empty otherwise. Any other failure to mount fails the test.
std::string onSmallDisk(const std::string& directory, std::uint64_t bytes,
                        const std::function<void(const SmallDisk&)>& body);

}  // namespace tolvar_test
