#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace qel {

/// Every call of the operating system that can fail and that the library depends on, as a table of
/// function pointers: the seam through which faults are injected. Production code never changes the
/// table. A test replaces entries before it starts threads and restores them after joining them.
struct SystemCalls {
  int (*shmget)(key_t key, size_t size, int flags);
  void* (*shmat)(int id, const void* address, int flags);
  int (*shmdt)(const void* address);
  int (*shmctl)(int id, int command, shmid_ds* data);
  int (*semget)(key_t key, int count, int flags);
  int (*semtimedop)(int id, sembuf* operations, size_t count, const timespec* timeout);
  /// `data` is for IPC_STAT; the other commands that are used take no argument.
  int (*semctl)(int id, int index, int command, semid_ds* data);
  int (*open)(const char* path, int flags, mode_t mode);
  int (*close)(int fd);
  ssize_t (*write)(int fd, const void* data, size_t size);
  ssize_t (*pwrite)(int fd, const void* data, size_t size, off_t offset);
  int (*posixFallocate)(int fd, off_t offset, off_t length);
  int (*ftruncate)(int fd, off_t length);
  int (*flock)(int fd, int operation);
  int (*rename)(const char* from, const char* to);
  int (*remove)(const char* path);
  int (*mkdir)(const char* path, mode_t mode);
  void* (*mmap)(void* address, size_t length, int protection, int flags, int fd, off_t offset);
  int (*munmap)(void* address, size_t length);
  int (*pthreadCreate)(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                       void* argument);
  int (*membarrier)(int command, unsigned flags);
};

/// The table in force.
SystemCalls& systemCalls() noexcept;

/// A table that goes straight to the operating system.
SystemCalls realSystemCalls() noexcept;

}  // namespace qel
