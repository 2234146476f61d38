#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>

namespace tolvar_test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tolvar-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed: " + pattern);
  _path = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

WorkingDirectory::WorkingDirectory() : _previous(std::filesystem::current_path()) {
  std::filesystem::current_path(_directory.path());
}

WorkingDirectory::~WorkingDirectory() {
  std::error_code ignored;
  std::filesystem::current_path(_previous, ignored);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.is_open()) << "cannot read " << path;
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
  out.close();
  EXPECT_TRUE(out.good()) << "cannot write " << path;
}

}  // namespace tolvar_test
