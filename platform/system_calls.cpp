#include "platform/system_calls.h"

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
  calls.semctl = [](int id, int index, int command) { return ::semctl(id, index, command); };
  calls.open = [](const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); };
  calls.close = ::close;
  calls.write = ::write;
  calls.posixFallocate = ::posix_fallocate;
  calls.rename = ::rename;
  calls.remove = ::remove;
  calls.mkdir = ::mkdir;
  calls.mmap = ::mmap;
  calls.munmap = ::munmap;
  calls.pthreadCreate = ::pthread_create;
  return calls;
}

SystemCalls& systemCalls() noexcept {
  static SystemCalls calls = realSystemCalls();
  return calls;
}

}  // namespace qel
