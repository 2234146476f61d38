#include "tools/tolvard/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "tools/tolvard/text_output.h"

namespace tolvar::tools {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& path, const char* where = "") {
  const int error = errno;
  throw std::runtime_error(path + ": cannot be written: " + where +
                           std::generic_category().message(error));
}

bool isSame(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

bool isStandardOutput(const struct stat& file) {
  struct stat output {};
  return fstat(STDOUT_FILENO, &output) == 0 && isSame(file, output);
}

/// A descriptor that is open for writing, with the path for messages.
class Output {
 public:
  Output(const std::string& path, int descriptor) : _path(path), _descriptor(descriptor) {}
  ~Output() {
    if (_descriptor >= 0) ::close(_descriptor);
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void write(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t written = ::write(_descriptor, text.data(), text.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) fail(_path);
      text.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  /// Like the file it takes the place of, or like any new file.
  void takeAttributes(const struct stat* old) const {
    const mode_t mask = umask(0);
    umask(mask);
    const bool keepsGroup = old == nullptr || fchown(_descriptor, old->st_uid, old->st_gid) == 0 ||
                            fchown(_descriptor, static_cast<uid_t>(-1), old->st_gid) == 0;
    mode_t mode = old == nullptr ? 0666 & ~mask : old->st_mode & 0777;
    // What was for another group is not for the one that has it now.
    if (!keepsGroup) mode &= 0707;
    if (fchmod(_descriptor, mode) != 0) fail(_path);
  }

  void sync() const {
    if (fsync(_descriptor) != 0) fail(_path);
  }

  /// A full disk may show as late as here.
  void close() {
    const int descriptor = _descriptor;
    _descriptor = -1;
    if (::close(descriptor) != 0) fail(_path);
  }

 private:
  const std::string& _path;
  int _descriptor;
};

/// Where the links lead that `path` may begin; the last need not be there.
fs::path followed(fs::path path) {
  constexpr int kMostLinks = 40;
  std::error_code ignored;
  for (int i = 0; i < kMostLinks && fs::is_symlink(path, ignored); ++i)
    path = path.parent_path() / fs::read_symlink(path, ignored);
  return path;
}

void writeInto(const std::string& path, const std::string& text) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) fail(path);
  Output file(path, descriptor);
  file.write(text);
  file.close();
}

/// `path` is for messages, `old` the file at `target`, null when there is none.
void replace(const std::string& path, const std::string& target, const struct stat* old,
             const std::string& text) {
  std::string temporary = target + ".XXXXXX";
  const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
  if (descriptor < 0) fail(path, "no file can be made beside it: ");
  try {
    Output file(path, descriptor);
    file.write(text);
    file.takeAttributes(old);
    file.sync();
    file.close();
    if (std::rename(temporary.c_str(), target.c_str()) != 0) fail(path);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
}

}  // namespace

void writeFile(const std::string& path, const std::string& text) {
  struct stat old {};
  if (::stat(path.c_str(), &old) != 0) {
    if (errno != ENOENT) fail(path);
    replace(path, followed(path).string(), nullptr, text);
    return;
  }
  if (isStandardOutput(old)) {
    print(text);
    return;
  }
  const std::string target = followed(path).string();
  // A link of /proc leads to files that no path leads to any more.
  struct stat found {};
  const bool isReplaceable =
      S_ISREG(old.st_mode) && ::stat(target.c_str(), &found) == 0 && isSame(old, found);
  if (isReplaceable)
    replace(path, target, &old, text);
  else
    writeInto(path, text);
}

}  // namespace tolvar::tools
