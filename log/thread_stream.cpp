#include "log/thread_stream.h"

#include <atomic>
#include <memory>
#include <vector>

namespace qel {
namespace {

/// A line being composed; `owner` is 0 while nobody composes in it.
struct Line {
  std::uint64_t owner = 0;
  std::ostringstream text;
};

/// The lines of one thread: as many as composing is nested, in practice one or two.
using Lines = std::vector<std::unique_ptr<Line>>;

/// An object that dies on another thread may leave a line here; beyond this many the oldest goes.
constexpr std::size_t kMaxLines = 16;

// A plain pointer, so that it can still be used after the thread's destructors have run: an object
// with static storage may log on its way out.
thread_local Lines* threadLines = nullptr;

struct LinesOwner {
  ~LinesOwner() {
    delete threadLines;
    threadLines = nullptr;
  }
};

Lines& linesOfThread() {
  if (threadLines == nullptr) {
    threadLines = new Lines;
    thread_local LinesOwner owner;
    static_cast<void>(owner);
  }
  return *threadLines;
}

Line* find(std::uint64_t owner) noexcept {
  if (threadLines == nullptr) return nullptr;
  for (const auto& line : *threadLines)
    if (line->owner == owner) return line.get();
  return nullptr;
}

void release(Line& line) {
  line.owner = 0;
  line.text.str({});
  line.text.clear();
  line.text.copyfmt(std::ios(nullptr));
}

Line& acquire(std::uint64_t owner) {
  Lines& lines = linesOfThread();
  Line* line = find(0);
  if (line == nullptr) {
    if (lines.size() >= kMaxLines) lines.erase(lines.begin());
    lines.push_back(std::make_unique<Line>());
    line = lines.back().get();
  }
  line->owner = owner;
  return *line;
}

std::uint64_t nextId() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

}  // namespace

ZU_ThreadStream::ZU_ThreadStream() : _id(nextId()) {}

ZU_ThreadStream::~ZU_ThreadStream() {
  if (Line* line = find(_id)) release(*line);
}

std::ostringstream& ZU_ThreadStream::line() {
  Line* line = find(_id);
  return line != nullptr ? line->text : acquire(_id).text;
}

std::string ZU_ThreadStream::str() const {
  const Line* line = find(_id);
  return line != nullptr ? line->text.str() : std::string();
}

void ZU_ThreadStream::str(const std::string& text) {
  Line* line = find(_id);
  if (text.empty()) {
    if (line != nullptr) release(*line);
    return;
  }
  if (line == nullptr) line = &acquire(_id);
  line->text.str(text);
  line->text.seekp(0, std::ios_base::end);
}

}  // namespace qel
