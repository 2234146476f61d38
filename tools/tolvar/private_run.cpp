#include "tools/tolvar/private_run.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

#include "platform/exception.h"

namespace tolvar::tools {
namespace {

bool isFree(key_t key) {
  return shmget(key, 0, 0) < 0 && errno == ENOENT && semget(key, 0, 0) < 0 && errno == ENOENT;
}

std::array<key_t, 3> freeKeys() {
  std::random_device random;
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const auto first = static_cast<key_t>(0x20000000u | (random() & 0x1FFFFFFCu));
    if (isFree(first) && isFree(first + 1) && isFree(first + 2))
      return {first, first + 1, first + 2};
  }
  throw qel::ZU_Exception(
      "no free System V shared-memory keys were found; see `ipcs -m`, or name keys with --keys");
}

/// Absolute, for the run goes elsewhere and must find it at its end.
std::filesystem::path temporaryDirectory() {
  try {
    return std::filesystem::absolute(std::filesystem::temp_directory_path());
  } catch (const std::filesystem::filesystem_error& error) {
    const char* const setting = std::getenv("TMPDIR");
    throw qel::ZU_Exception(
        "no directory for temporary files: " + std::string(setting != nullptr ? setting : "/tmp") +
        " is none; set TMPDIR to a directory that can be written (" + error.code().message() + ")");
  }
}

void removeBehind(key_t key) noexcept {
  const int segment = shmget(key, 0, 0);
  if (segment >= 0) shmctl(segment, IPC_RMID, nullptr);
  const int semaphores = semget(key, 0, 0);
  if (semaphores >= 0) semctl(semaphores, 0, IPC_RMID);
}

}  // namespace

struct PrivateRun::Belongings {
  Belongings(const std::array<key_t, 3>& chosen, bool isOwn) : keys(chosen), removesKeys(isOwn) {}

  void remove() noexcept;
  void endOn(int signal) noexcept;

  const std::array<key_t, 3> keys;
  const bool removesKeys;
  std::string directory;  ///< set before the second thread

  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex.
  std::optional<int> ownStatus;
  bool isSignalled = false;
};

void PrivateRun::Belongings::remove() noexcept {
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  // Last, for a client may run to the end and make what is missing.
  if (removesKeys)
    for (const key_t key : keys) removeBehind(key);
}

void PrivateRun::Belongings::endOn(int signal) noexcept {
  std::optional<int> status;
  {
    const std::lock_guard lock(mutex);
    isSignalled = true;
    status = ownStatus;
  }
  changed.notify_all();
  if (status) std::this_thread::sleep_for(std::chrono::milliseconds(kEndMillis));
  remove();
  _exit(status.value_or(128 + signal));
}

PrivateRun::PrivateRun() : _belongings(std::make_shared<Belongings>(freeKeys(), true)) {
  enterDirectory();
}

PrivateRun::PrivateRun(const std::array<key_t, 3>& keys)
    : _belongings(std::make_shared<Belongings>(keys, false)) {
  enterDirectory();
}

PrivateRun::~PrivateRun() { _belongings->remove(); }

const std::string& PrivateRun::directory() const noexcept { return _belongings->directory; }
const std::array<key_t, 3>& PrivateRun::keys() const noexcept { return _belongings->keys; }

void PrivateRun::enterDirectory() {
  std::string pattern = (temporaryDirectory() / "tolvar-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr)
    throw qel::ZU_Exception("cannot create a directory like " + pattern +
                                "; set TMPDIR to a directory that can be written",
                            errno);
  _belongings->directory = pattern;
  if (chdir(pattern.c_str()) != 0)
    throw qel::ZU_Exception("cannot enter the directory " + pattern, errno);
  takeSignals();
}

void PrivateRun::takeSignals() {
  std::signal(SIGPIPE, SIG_IGN);  // a reader that has seen enough shows as a failed write
  sigset_t endings;
  sigemptyset(&endings);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&endings, signal);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);
  std::thread([belongings = _belongings, endings] {
    int signal = 0;
    sigwait(&endings, &signal);
    belongings->endOn(signal);
  }).detach();
}

void PrivateRun::endBySelf(int status) {
  const std::lock_guard lock(_belongings->mutex);
  _belongings->ownStatus = status;
}

bool PrivateRun::awaitSignal(std::chrono::milliseconds limit) const {
  std::unique_lock lock(_belongings->mutex);
  return _belongings->changed.wait_for(lock, limit, [this] { return _belongings->isSignalled; });
}

}  // namespace tolvar::tools
