#include "fuzz/memory_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include "fuzz/require.h"

namespace tolvar_fuzz {

MemoryFile::MemoryFile(const std::string& content) : _fd(memfd_create("fuzz", MFD_CLOEXEC)) {
  FUZZ_REQUIRE(_fd >= 0);
  FUZZ_REQUIRE(write(_fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
}

MemoryFile::~MemoryFile() { close(_fd); }

}  // namespace tolvar_fuzz
