#include "log/roll_by_size.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <system_error>
#include <vector>

#include "platform/file.h"
#include "platform/system_calls.h"

namespace qel {
namespace {

using Hold = std::lock_guard<ZU_ThreadMutex>;

constexpr const char* kExtension = ".log";

}  // namespace

void ZU_RollBySize::init(const std::string& path, int maxSize, int maxNum) {
  if (maxSize < 1 || maxNum < 1) {
    throw LoggerException("[ZU_RollBySize::init]: size " + std::to_string(maxSize) +
                              " and file count " + std::to_string(maxNum) +
                              " must be 1 or more: " + path,
                          EINVAL);
  }
  Hold hold(_mutex);
  _path = path;
  _maxSize = maxSize;
  _maxNum = maxNum;
  _file.close();
  _lastCheck = 0;
}

void ZU_RollBySize::roll(LogBatch& batch) {
  Hold hold(_mutex);
  if (_path.empty()) {
    writeToStandardOutput(batch);
    return;
  }
  const std::time_t now = _clock->time();
  const std::time_t elapsed = now - _lastCheck;
  if (elapsed > 5 || elapsed < 0) {
    _lastCheck = now;
    _file.close();
  }
  if (!_file.isOpen()) openFile();
  writeToFile(batch);
  if (elapsed < 6) return;
  if (_file.size() < _maxSize) return;
  // Whoever is renaming the file now, or has done so already, did it for everybody.
  if (!_file.lockForRename()) return;
  if (_file.isBehind(_path + kExtension)) noteShift(shiftFiles());
  openFile();
}

void ZU_RollBySize::openFile() {
  const std::string name = _path + kExtension;
  int error = _file.open(name);
  const std::string directory = ZU_File::extractFilePath(_path);
  // That the directory cannot be made says more than that it is not there.
  if (!ZU_File::isDirectory(directory) && !ZU_File::makeDirRecursive(directory) && error != 0)
    error = errno;
  if (error != 0) throw LoggerException("[ZU_RollBySize::roll]:fopen fail: " + name, error);
}

void ZU_RollBySize::writeToFile(LogBatch& batch) {
  std::string bytes;
  std::vector<std::size_t> ends;
  ends.reserve(batch.size());
  for (const LogEntry& entry : batch) {
    _write(entry, &bytes);
    ends.push_back(bytes.size());
  }
  int error = 0;
  const std::size_t written = _file.append(bytes, &error);
  std::size_t whole = 0;
  std::size_t wholeEnd = 0;
  while (whole < ends.size() && ends[whole] <= written) wholeEnd = ends[whole++];
  batch.erase(batch.begin(), batch.begin() + static_cast<std::ptrdiff_t>(whole));
  if (batch.empty()) return;
  // No half line stays behind: the operator may empty or remove the file before the rest comes.
  _file.takeBack(written - wholeEnd);
  _file.close();
  throw LoggerException("[ZU_RollBySize::roll]:write fail: " + _path + kExtension, error);
}

void ZU_RollBySize::writeToStandardOutput(LogBatch& batch) {
  std::string bytes;
  for (const LogEntry& entry : batch) _write(entry, &bytes);
  std::cout << bytes << std::flush;
  batch.clear();
}

std::string ZU_RollBySize::numbered(int number) const {
  return number == 0 ? _path + kExtension : _path + std::to_string(number) + kExtension;
}

/// Says once, where the log's own failures are told, that its file is not rolled any more.
void ZU_RollBySize::noteShift(int error) {
  if (error != 0 && !_stuck) {
    std::fprintf(stderr, "[ZU_RollBySize::roll]: cannot rename %s (%s); it grows beyond %d bytes\n",
                 (_path + kExtension).c_str(), std::generic_category().message(error).c_str(),
                 _maxSize);
  }
  _stuck = error != 0;
}

/// Answers 0, or the errno value of a file that could not be moved.
int ZU_RollBySize::shiftFiles() {
  const SystemCalls& calls = systemCalls();
  const std::string oldest = _path + std::to_string(_maxNum - 1) + kExtension;
  if (ZU_File::isFileExist(oldest)) calls.remove(oldest.c_str());
  for (int i = _maxNum - 2; i >= 0; --i) {
    const std::string source = numbered(i);
    if (!ZU_File::isFileExist(source)) continue;
    // A file that cannot be moved must not be overwritten by the next one.
    if (calls.rename(source.c_str(), numbered(i + 1).c_str()) != 0) return errno;
  }
  return 0;
}

void ZU_RollBySize::appendUnlocked(std::string_view text) noexcept {
  if (_path.empty()) {
    [[maybe_unused]] const ssize_t ignored = ::write(STDOUT_FILENO, text.data(), text.size());
    return;
  }
  try {
    LogFile file;
    int ignored = 0;
    if (file.open(_path + kExtension) == 0) file.append(text, &ignored);
  } catch (const std::exception&) {
    // No memory for the name: the line is lost.
  }
}

}  // namespace qel
