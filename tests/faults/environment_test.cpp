#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <utility>

#include "tests/faults/forked_case.h"
#include "tests/faults/host_life.h"
#include "tests/support/plant.h"
#include "tests/support/temp_dir.h"

/// What surrounds a host process is at fault: its limits, its directory, its files. Each in a fork
/// of its own.
namespace tolvar_test {
namespace {

constexpr int kSeconds = 30;
/// Enough for threads and small tables, not for two segments of the usual size.
constexpr std::size_t kSpareAddresses = std::size_t{64} << 20;

/// A surrounding that can be set right again.
class Surrounding final : public FaultSource {
 public:
  Surrounding(std::function<void()> spoil, std::function<void()> restore)
      : _spoil(std::move(spoil)), _restore(std::move(restore)) {}
  void begin() override { _spoil(); }
  bool fired() const override { return true; }
  void heal() override {
    if (_restore) std::exchange(_restore, nullptr)();
  }

 private:
  const std::function<void()> _spoil;
  std::function<void()> _restore;
};

/// For what a test needs in its fork, where nobody hears an assertion.
void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

void limit(__rlimit_resource resource, rlim_t value) {
  rlimit limits{};
  require(getrlimit(resource, &limits) == 0, "getrlimit");
  limits.rlim_cur = std::min(value, limits.rlim_max);
  require(setrlimit(resource, &limits) == 0, "setrlimit");
}

std::size_t addressSpace() {
  std::ifstream in("/proc/self/statm");
  std::size_t pages = 0;
  require(static_cast<bool>(in >> pages), "statm");
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

class Environment : public testing::Test {
 protected:
  Environment() { plantSmallSegments(keys, 64, 64); }

  /// A life in a fork whose surroundings `spoil` spoils and `restore` sets right.
  std::string live(std::function<void()> spoil, std::function<void()> restore) {
    return runForked(directory.path(), kSeconds, [&] {
      Surrounding surrounding(spoil, restore);
      return HostLife(keys, surrounding).live();
    });
  }

  bool logSays(const std::string& text) const {
    return readFile(directory.file(HostLife::kLogFile)).find(text) != std::string::npos;
  }

  const TempDir directory;
  const ShmKeys keys;
};

TEST_F(Environment, NoRoomForFilesCostsTheLogAndTheStartSaysSo) {
  // As on a full disk: files cannot grow. The position file cannot be made, so the first start
  // fails and says why; with room it starts.
  const std::string problems = live(
      [] {
        signal(SIGXFSZ, SIG_IGN);
        limit(RLIMIT_FSIZE, 0);
      },
      [] { limit(RLIMIT_FSIZE, RLIM_INFINITY); });
  EXPECT_EQ(problems, "");
  EXPECT_TRUE(logSays("cannot reserve 9 bytes in downloadPos.dat"));
}

TEST_F(Environment, ALogThatFillsItsDiskCostsNoAnswer) {
  // The position file is there already; the log gets room for a few lines.
  writeFile(directory.file("downloadPos.dat"), std::string(9, '\0'));
  const std::string problems = live(
      [] {
        signal(SIGXFSZ, SIG_IGN);
        limit(RLIMIT_FSIZE, 2000);
      },
      [] {});
  EXPECT_EQ(problems, "");
  EXPECT_LE(std::filesystem::file_size(directory.file(HostLife::kLogFile)), 2000u);
}

TEST_F(Environment, AWorkingDirectoryThatIsGoneFailsTheStartAndSaysWhy) {
  const std::string problems = live(
      [this] {
        std::filesystem::create_directory("gone");
        require(chdir("gone") == 0, "chdir");
        std::filesystem::remove(directory.file("gone"));
      },
      [this] { require(chdir(directory.path().c_str()) == 0, "chdir"); });
  EXPECT_EQ(problems, "");
  EXPECT_TRUE(logSays("cannot open downloadPos.dat"));
}

// The undefined-behaviour sanitizer needs descriptors of its own to look at an object's type.
#ifndef __SANITIZE_ADDRESS__
TEST_F(Environment, NoDescriptorsLeftFailTheStartAndSayWhy) {
  const std::string problems =
      live([] { limit(RLIMIT_NOFILE, 3); }, [] { limit(RLIMIT_NOFILE, 256); });
  EXPECT_EQ(problems, "");
  EXPECT_TRUE(logSays("cannot open downloadPos.dat"));
}
#endif

TEST_F(Environment, NoAddressSpaceLeftKeepsTheLastGoodTable) {
  keys.removeSegments();  // full-sized segments do not fit
  const std::string problems = live([] { limit(RLIMIT_AS, addressSpace() + kSpareAddresses); },
                                    [] { limit(RLIMIT_AS, RLIM_INFINITY); });
  EXPECT_EQ(problems, "");
  EXPECT_TRUE(logSays("no share memory to be had"));
}

}  // namespace
}  // namespace tolvar_test
