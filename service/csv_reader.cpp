#include "service/csv_reader.h"

#include <algorithm>
#include <string>

namespace tolvar::service {
namespace {

/// Most fields of a row; far above the columns that any table has.
constexpr std::size_t kMaxFields = 1000;

}  // namespace

bool CsvReader::next(std::vector<CsvField>& fields) {
  while (!_faults.isFull() && skipBlankLines()) {
    if (readRow(fields)) return true;
  }
  return false;
}

bool CsvReader::skipBlankLines() {
  std::size_t position = _position;
  while (position < _text.size()) {
    const char c = _text[position];
    if (c == '\n') {
      _position = position + 1;
    } else if (c != ' ' && c != '\t' && c != '\r') {
      return true;
    }
    ++position;
  }
  return false;
}

bool CsvReader::readRow(std::vector<CsvField>& fields) {
  fields.clear();
  _unescaped.clear();
  while (true) {
    // A file without line ends would be one row, and take many times its size.
    if (fields.size() == kMaxFields) {
      broken(_position, "more than " + std::to_string(kMaxFields) +
                            " fields in one line; expected lines that end in LF or CRLF");
      return false;
    }
    const End end = readField(fields.emplace_back());
    if (end == End::Row) return true;
    if (end == End::Broken) return false;
  }
}

CsvReader::End CsvReader::readField(CsvField& field) {
  std::size_t begin = _position;
  while (begin < _text.size() && (_text[begin] == ' ' || _text[begin] == '\t')) ++begin;
  field.offset = begin;
  if (begin < _text.size() && _text[begin] == '"') {
    _position = begin;
    return readQuoted(field);
  }
  return readUnquoted(field);
}

CsvReader::End CsvReader::readUnquoted(CsvField& field) {
  const std::size_t begin = _position;
  while (_position < _text.size() && _text[_position] != ',' && _text[_position] != '\n') {
    if (_text[_position] == '"')
      return broken(_position, "stray double quote; a field that holds one must be quoted whole");
    ++_position;
  }
  std::size_t end = _position;
  const bool isRowEnd = end == _text.size() || _text[end] == '\n';
  if (isRowEnd && end > begin && _text[end - 1] == '\r') --end;
  field.text = trimmed(_text.substr(begin, end - begin));
  if (field.text.empty()) field.offset = begin;
  return readSeparator();
}

CsvReader::End CsvReader::readQuoted(CsvField& field) {
  const std::size_t opening = _position++;
  std::size_t begin = _position;
  std::string* joined = nullptr;
  while (true) {
    const std::size_t quote = _text.find('"', _position);
    if (quote == std::string_view::npos) {
      _position = _text.size();
      _faults.add(opening, "quoted field does not end; expected a closing double quote");
      return End::Broken;
    }
    _position = quote + 1;
    const bool isDoubled = _position < _text.size() && _text[_position] == '"';
    if (!isDoubled && joined == nullptr) {
      field.text = _text.substr(begin, quote - begin);
      break;
    }
    if (joined == nullptr) joined = &_unescaped.emplace_back();
    joined->append(_text.substr(begin, quote - begin));
    if (!isDoubled) {
      field.text = *joined;
      break;
    }
    begin = _position++;  // the second quote stays
  }
  while (_position < _text.size() && (_text[_position] == ' ' || _text[_position] == '\t'))
    ++_position;
  if (_text.substr(_position, 2) == "\r\n" || _text.substr(_position) == "\r") ++_position;
  if (_position < _text.size() && _text[_position] != ',' && _text[_position] != '\n')
    return broken(_position, "text behind a closing double quote; expected a comma or a line end");
  return readSeparator();
}

CsvReader::End CsvReader::readSeparator() {
  if (_position == _text.size()) return End::Row;
  return _text[_position++] == ',' ? End::Field : End::Row;
}

CsvReader::End CsvReader::broken(std::size_t offset, const std::string& message) {
  _faults.add(offset, message);
  _position = std::min(_text.find('\n', offset), _text.size() - 1) + 1;
  return End::Broken;
}

}  // namespace tolvar::service
