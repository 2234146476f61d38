#pragma once

#include <filesystem>
#include <string>

namespace tolvar_test {

/// A directory of the test's own, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path() const { return _path; }
  std::string file(const std::string& name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

/// Moves the process into a temporary directory for a scope and back again.
class WorkingDirectory {
 public:
  WorkingDirectory();
  ~WorkingDirectory();
  std::string path() const { return _directory.path(); }
  std::string file(const std::string& name) const { return _directory.file(name); }

 private:
  TempDir _directory;
  std::filesystem::path _previous;
};

/// Whole content of a file; fails the test when it cannot be read.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace tolvar_test
