#include "service/text_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

namespace tolvar::service {
namespace {

constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";

[[noreturn]] void fail(const std::string& path, const std::string& message) {
  throw ImportError({ImportNote{path, 0, 0, message}});
}

[[noreturn]] void failWithErrno(const std::string& path, int error) {
  fail(path, "cannot read the file: " + std::generic_category().message(error));
}

/// A file descriptor that closes itself.
class OpenFile {
 public:
  explicit OpenFile(const std::string& path) : _fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~OpenFile() {
    if (_fd >= 0) ::close(_fd);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  int get() const { return _fd; }

 private:
  int _fd;
};

std::string readAll(const std::string& path, std::uint64_t limit) {
  const OpenFile file(path);
  struct stat status {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) failWithErrno(path, errno);
  if (S_ISDIR(status.st_mode)) fail(path, "is a directory; expected a text file");

  constexpr std::size_t kChunk = std::size_t{1} << 20;
  const auto expected = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
  std::string text;
  std::size_t size = 0;
  while (true) {
    if (size > limit || expected > limit)
      fail(path, "is larger than " + std::to_string(limit) + " bytes, the most that is read");
    if (size == text.size()) {
      // One byte more than expected lets the end of the file show without growing.
      text.resize(
          std::max({size + size / 2, size + kChunk, static_cast<std::size_t>(expected) + 1}));
    }
    const ssize_t got = ::read(file.get(), text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) failWithErrno(path, errno);
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  text.resize(size);
  return text;
}

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

/// Length of the well-formed UTF-8 sequence that begins `text`, 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if (!isContinuation(text[i])) return 0;
  }
  const unsigned second = byte(1);
  if (first == 0xE0 && second < 0xA0) return 0;  // overlong
  if (first == 0xED && second > 0x9F) return 0;  // surrogates
  if (first == 0xF0 && second < 0x90) return 0;  // overlong
  if (first == 0xF4 && second > 0x8F) return 0;  // above U+10FFFF
  return length;
}

}  // namespace

TextSource TextSource::load(const std::string& path, std::uint64_t limit) {
  TextSource source(path, readAll(path, limit));
  if (source._text.starts_with("\xFF\xFE") || source._text.starts_with("\xFE\xFF"))
    fail(path, "is UTF-16 text; expected UTF-8");
  if (source._text.starts_with("\x1F\x8B"))
    fail(path, "is compressed by gzip; expected text: unpack it first");
  return source;
}

TextSource::TextSource(std::string name, std::string text)
    : _name(std::move(name)), _text(std::move(text)) {
  if (_text.starts_with(kUtf8Mark)) _begin = kUtf8Mark.size();
}

std::uint32_t TextSource::line(std::size_t offset) const {
  const auto end = _text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, _text.size()));
  return static_cast<std::uint32_t>(std::count(_text.begin(), end, '\n') + 1);
}

ImportNote TextSource::note(std::size_t offset, std::string message) const {
  offset = std::clamp(offset, _begin, _text.size());
  const std::size_t newline = offset == 0 ? std::string::npos : _text.rfind('\n', offset - 1);
  const std::size_t lineBegin = newline == std::string::npos ? _begin : newline + 1;
  const auto first = _text.begin() + static_cast<std::ptrdiff_t>(lineBegin);
  const auto last = _text.begin() + static_cast<std::ptrdiff_t>(offset);
  const auto characters = last - first - std::count_if(first, last, isContinuation);
  return {_name, line(offset), static_cast<std::uint32_t>(characters + 1), std::move(message)};
}

void FaultList::add(std::size_t offset, const std::string& message) {
  if (!isFull()) _faults.push_back({offset, message});
}

void FaultList::throwIfAny() {
  if (_faults.empty()) return;
  const bool areMore = isFull();
  if (areMore) _faults.pop_back();
  std::stable_sort(_faults.begin(), _faults.end(),
                   [](const Fault& a, const Fault& b) { return a.offset < b.offset; });
  std::vector<ImportNote> notes;
  for (Fault& fault : _faults)
    notes.push_back(_source.note(fault.offset, std::move(fault.message)));
  if (areMore)
    notes.push_back({_source.name(), 0, 0, "more faults follow; these are the first 20"});
  throw ImportError(std::move(notes));
}

std::size_t skipLeadingComments(const TextSource& source) {
  const std::string_view text = source.text();
  std::size_t begin = source.begin();
  while (begin < text.size()) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    const std::size_t first = text.find_first_not_of(" \t\r", begin);
    if (first < end && text[first] != '#') return begin;
    begin = std::min(end + 1, text.size());
  }
  return begin;
}

std::string quoted(std::string_view text) {
  constexpr std::size_t kMost = 60;
  std::string out = "\"";
  const std::string_view shown = text.substr(0, kMost);
  const bool isText = isUtf8(text);
  for (const char c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !isText)) {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\x%02X", byte);
      out += escape;
    } else {
      out += c;
    }
  }
  if (shown.size() < text.size()) {
    // Not in the middle of a character.
    for (std::size_t i = kMost; isText && i < text.size() && isContinuation(text[i]); ++i)
      out += text[i];
    out += "...";
  }
  return out + "\"";
}

std::size_t controlLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  if (byte(0) < 0x20 || byte(0) == 0x7F) return 1;
  return byte(0) == 0xC2 && text.size() > 1 && byte(1) < 0xA0 ? 2 : 0;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return text.substr(0, 0);
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = sequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace tolvar::service
