#pragma once

#include "service/importer.h"
#include "service/text_source.h"

namespace tolvar::service {

/// Reads a table with a header line that names its columns, in any order and case:
///
///   start, end   first and last address, both inclusive: a dotted quad or a decimal integer
///   network      instead of the two, a CIDR block whose host bits are all zero
///   country      a name, or a code of ISO 3166-1 (two or three capital letters)
///   province, city, district, extend, oper, nettype, apn   names
///   flable       one of the fifteen label texts, or its number 1 to 15
///
/// Fields are as RFC 4180 has them, separated by commas; a byte-order mark, LF and CRLF are taken.
/// Lines before the header that begin with '#' and blanks around an unquoted field do not count. An
/// empty field means unknown, id 0.
///
/// A place becomes country id * 10^9 + province number * 10^6 + city number * 10^3 + district
/// number, each number 1 to 999 within its parent, 0 where the name is missing; a city without
/// province so lies under its country's province number 0, where its name is still found. Numbers
/// go by the sorted names of one parent, the ids of the other kinds by their sorted names from 1,
/// unless the registry of the options knows better.
///
/// Throws ImportError.
ImportResult importCsv(const TextSource& source, const ImportOptions& options);

}  // namespace tolvar::service
