#pragma once

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>

namespace qel {

/// Looks like one string stream and is one per thread: what a thread streams into the object is
/// seen by that thread only. Log lines are composed in one member that several threads use at once;
/// with an ordinary stream they would write into one buffer, and a lock would have to be held while
/// a line is composed, by code that may itself log. Here nothing is shared, so there is no lock.
///
/// A line lasts from the first `<<` to `str("")`, on one thread; lines of different objects on one
/// thread do not mix, even when composing one makes another one log. All operations may be called
/// from any thread.
class ZU_ThreadStream {
 public:
  ZU_ThreadStream();
  ~ZU_ThreadStream();
  ZU_ThreadStream(const ZU_ThreadStream&) = delete;
  ZU_ThreadStream& operator=(const ZU_ThreadStream&) = delete;

  template <class T>
  ZU_ThreadStream& operator<<(const T& value) {
    line() << value;
    return *this;
  }

  ZU_ThreadStream& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    manipulator(line());
    return *this;
  }

  /// The calling thread's line so far.
  std::string str() const;

  /// Replaces the calling thread's line. An empty text ends the line: the next one begins with the
  /// formatting of a new stream.
  void str(const std::string& text);

 private:
  std::ostringstream& line();

  const std::uint64_t _id;
};

}  // namespace qel
