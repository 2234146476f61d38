#include "tools/tolvar/private_run.h"

#include <pthread.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
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

}  // namespace

PrivateRun::PrivateRun() : _keys(freeKeys()), _removeKeys(true) { enterDirectory(); }

PrivateRun::PrivateRun(const std::array<key_t, 3>& keys) : _keys(keys), _removeKeys(false) {
  enterDirectory();
}

PrivateRun::~PrivateRun() { cleanUp(); }

void PrivateRun::enterDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tolvar-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr)
    throw qel::ZU_Exception("cannot create a directory like " + pattern, errno);
  _directory = pattern;
  if (chdir(_directory.c_str()) != 0)
    throw qel::ZU_Exception("cannot enter the directory " + _directory, errno);
  endOnSignals();
}

void PrivateRun::endOnSignals() {
  std::signal(SIGPIPE, SIG_IGN);  // a reader that has seen enough shows as a failed write
  sigset_t endings;
  sigemptyset(&endings);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&endings, signal);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);
  // Lives until the process ends, and the object with it: the tool makes one, in main.
  std::thread([this, endings] {
    int signal = 0;
    sigwait(&endings, &signal);
    cleanUp();
    _exit(128 + signal);
  }).detach();
}

void PrivateRun::cleanUp() const noexcept {
  if (_removeKeys) {
    for (const key_t key : _keys) {
      const int segment = shmget(key, 0, 0);
      if (segment >= 0) shmctl(segment, IPC_RMID, nullptr);
      const int semaphores = semget(key, 0, 0);
      if (semaphores >= 0) semctl(semaphores, 0, IPC_RMID);
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(_directory, ignored);
}

}  // namespace tolvar::tools
