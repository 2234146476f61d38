#include "tests/tolvard/small_disk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace tolvar_test {
namespace {

std::string options(std::uint64_t bytes) { return "mode=0700,size=" + std::to_string(bytes); }

/// Whether the calling thread has the capability that mounting takes.
bool mayMount() {
  std::ifstream status("/proc/thread-self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("CapEff:"))
      return (std::stoull(line.substr(7), nullptr, 16) >> CAP_SYS_ADMIN & 1u) != 0;
  }
  ADD_FAILURE() << "the thread's capabilities cannot be read";
  return true;
}

/// Want of the right is a reason; anything else fails the test.
std::string why(const char* what) {
  const int error = errno;
  const std::string reason = std::string(what) + ": " + std::generic_category().message(error);
  if (error != EPERM || mayMount()) ADD_FAILURE() << reason;
  return reason;
}

/// Mounts where only this thread sees it. Empty, or why not.
std::string mountForThisThread(const std::string& directory, std::uint64_t bytes) {
  if (unshare(CLONE_NEWNS) != 0) return why("no mount namespace of its own");
  // Otherwise the mount would be passed on to the namespace this one was copied from.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return why("the mounts cannot be made private");
  if (mount("tolvar-test", directory.c_str(), "tmpfs", 0, options(bytes).c_str()) != 0)
    return why("no tmpfs can be mounted");
  return "";
}

}  // namespace

std::uint64_t SmallDisk::freeBytes() const {
  struct statvfs state {};
  EXPECT_EQ(statvfs(_directory.c_str(), &state), 0);
  return std::uint64_t{state.f_bavail} * state.f_frsize;
}

void SmallDisk::fill() const {
  const int filler = open(file("filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(filler, 0);
  const std::vector<char> page(4096);
  while (write(filler, page.data(), page.size()) > 0) {
  }
  EXPECT_EQ(errno, ENOSPC);
  close(filler);
  EXPECT_EQ(freeBytes(), 0u);
}

void SmallDisk::empty() const { EXPECT_EQ(unlink(file("filler").c_str()), 0); }

void SmallDisk::grow(std::uint64_t bytes) const {
  EXPECT_EQ(mount(nullptr, _directory.c_str(), nullptr, MS_REMOUNT, options(bytes).c_str()), 0)
      << why("remount");
}

std::string onSmallDisk(const std::string& directory, std::uint64_t bytes,
                        const std::function<void(const SmallDisk&)>& body) {
  std::string refused;
  // A thread may have mounts of its own, and takes them along when it ends.
  std::thread([&] {
    refused = mountForThisThread(directory, bytes);
    if (refused.empty()) body(SmallDisk(directory));
  }).join();
  return refused;
}

}  // namespace tolvar_test
