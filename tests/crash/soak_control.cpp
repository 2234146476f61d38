#include "tests/crash/soak_control.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

namespace tolvar_test {

SoakControlFile::SoakControlFile(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || ftruncate(file, sizeof(SoakControl)) != 0)
    throw std::runtime_error("cannot make " + path);
  // A new file is zeros, which are valid values of everything in it.
  void* const at = mmap(nullptr, sizeof(SoakControl), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (at == MAP_FAILED) throw std::runtime_error("cannot map " + path);
  _control = static_cast<SoakControl*>(at);
}

SoakControlFile::~SoakControlFile() { munmap(_control, sizeof(SoakControl)); }

}  // namespace tolvar_test
