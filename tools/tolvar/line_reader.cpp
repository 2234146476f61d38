#include "tools/tolvar/line_reader.h"

#include <streambuf>

namespace tolvar::tools {

bool LineReader::next() {
  constexpr int kEnd = std::istream::traits_type::eof();
  std::streambuf& bytes = *_in.rdbuf();
  _text.clear();
  _isLonger = false;
  int byte = bytes.sbumpc();
  if (byte == kEnd) return false;
  ++_number;
  for (; byte != kEnd && byte != '\n'; byte = bytes.sbumpc()) {
    _isLonger = _text.size() == kMaxBytes;
    if (!_isLonger) _text += static_cast<char>(byte);
  }
  return true;
}

}  // namespace tolvar::tools
