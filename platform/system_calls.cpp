#include "platform/system_calls.h"

#include <sys/syscall.h>

#include <cstdio>

namespace qel {

SystemCalls realSystemCalls() noexcept {
  SystemCalls calls{};
  calls.shmget = ::shmget;
  calls.shmat = ::shmat;
  calls.shmdt = ::shmdt;
  calls.shmctl = ::shmctl;
  calls.semget = ::semget;
  calls.semtimedop = ::semtimedop;
  calls.semctl = [](int id, int index, int command, semid_ds* data) {
    union {
      int value;
      semid_ds* data;
    } argument{};
    argument.data = data;
    return ::semctl(id, index, command, argument);
  };
  calls.open = [](const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); };
  calls.close = ::close;
  calls.write = ::write;
  calls.pwrite = ::pwrite;
  calls.posixFallocate = ::posix_fallocate;
  calls.ftruncate = ::ftruncate;
  calls.flock = ::flock;
  calls.rename = ::rename;
  calls.remove = ::remove;
  calls.mkdir = ::mkdir;
  calls.mmap = ::mmap;
  calls.munmap = ::munmap;
  calls.pthreadCreate = ::pthread_create;
  calls.membarrier = [](int command, unsigned flags) {
    return static_cast<int>(::syscall(SYS_membarrier, command, flags, 0));
  };
  return calls;
}

SystemCalls& systemCalls() noexcept {
  static SystemCalls calls = realSystemCalls();
  return calls;
}

}  // namespace qel
