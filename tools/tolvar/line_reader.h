#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>

namespace tolvar::tools {

/// Lines of a stream, of which no more than kMaxBytes are ever held.
class LineReader {
 public:
  static constexpr std::size_t kMaxBytes = 256;

  /// `in` outlives the reader.
  explicit LineReader(std::istream& in) : _in(in) {}

  /// Goes on to the next line; false when there is none. What ends without a line end is a line,
  /// too, unless it is empty.
  bool next();

  /// The line without its end; the first kMaxBytes of one that is longer.
  const std::string& text() const noexcept { return _text; }

  bool isLonger() const noexcept { return _isLonger; }

  /// Of the line, from 1.
  std::uint64_t number() const noexcept { return _number; }

 private:
  std::istream& _in;
  std::string _text;
  bool _isLonger = false;
  std::uint64_t _number = 0;
};

}  // namespace tolvar::tools
