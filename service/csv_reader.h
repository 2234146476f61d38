#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "service/text_source.h"

namespace tolvar::service {

/// One field of a row. `text` lives until the next row is read.
struct CsvField {
  std::string_view text;
  std::size_t offset = 0;  ///< of its first byte in the source, the opening quote included
};

/// Splits a source into rows and fields as RFC 4180 has them: commas, double quotes doubled inside
/// quotes, LF or CRLF. Blanks around an unquoted field are cut off, lines with nothing but blanks
/// skipped. A row that cannot be split is reported and skipped up to the next line end.
/// Used by one thread at a time.
class CsvReader {
 public:
  /// `offset`: where the first row begins.
  CsvReader(const TextSource& source, std::size_t offset, FaultList& faults)
      : _text(source.text()), _position(offset), _faults(faults) {}

  /// Reads the next row; false at the end. `fields` keeps its memory from row to row.
  bool next(std::vector<CsvField>& fields);

 private:
  enum class End { Field, Row, Broken };

  bool skipBlankLines();
  bool readRow(std::vector<CsvField>& fields);
  End readField(CsvField& field);
  End readQuoted(CsvField& field);
  End readUnquoted(CsvField& field);
  End readSeparator();
  End broken(std::size_t offset, const std::string& message);

  const std::string_view _text;
  std::size_t _position;
  FaultList& _faults;
  std::deque<std::string> _unescaped;  ///< texts of this row's fields that held doubled quotes
};

}  // namespace tolvar::service
