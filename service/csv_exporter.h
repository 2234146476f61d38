#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "service/id_registry.h"
#include "service/iso_countries.h"
#include "service/table_version.h"
#include "service/text_source.h"

namespace tolvar::service {

/// The table as CSV that csv_importer.h reads: comment lines with the ids given to names, a header,
/// one line a range. Imported with these ids, it gives the same table: same ranges, same ids, same
/// names, same digest.
///
/// Throws std::runtime_error when the table holds what CSV cannot carry: ids without a name, ids
/// that the registry gives to no name.
std::string exportCsv(const TableVersion& table, const IdRegistry& ids,
                      const std::string& isoCountriesPath = kIsoCountriesPath);

/// The ids in the comment lines that begin a file; empty when there are none. `text` may be the
/// beginning of the file. Throws std::invalid_argument naming the line that is wrong.
IdRegistry exportedIds(std::string_view text);

/// The same from a file that was read. Throws std::runtime_error naming the file as well.
IdRegistry exportedIds(const TextSource& source);

/// Adds to `own` the entries of `other` that it has room for: an entry whose name has another id,
/// or whose id another name, stays out, and so do places below it. Answers how many stayed out.
std::size_t mergeIds(IdRegistry& own, const IdRegistry& other);

}  // namespace tolvar::service
