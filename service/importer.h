#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/id_registry.h"
#include "service/import_error.h"
#include "service/iso_countries.h"
#include "service/table_data.h"
#include "service/text_source.h"

namespace tolvar::service {

/// Largest file that is read, in bytes, and most ranges that are taken from one.
inline constexpr std::uint64_t kMaxImportBytes = std::uint64_t{1} << 30;
inline constexpr std::size_t kMaxImportRanges = std::size_t{1} << 24;

struct ImportOptions {
  /// Country names and numbers, the JSON file of Debian's package iso-codes.
  std::string isoCountriesPath = kIsoCountriesPath;

  /// Ids given by earlier imports. Names found there keep their ids; the others get the next free
  /// ones. Left empty, ids follow from the sorted names of the file alone.
  IdRegistry ids;
};

struct ImportResult {
  TableData table;
  std::vector<ImportNote> warnings;
  IdRegistry ids;  ///< those of the options and those given now; keep them for the next import
};

/// Reads the table in the file `path`. Two forms are told apart by their first line that is no '#'
/// comment: a header that names columns (csv_importer.h), or three columns start,end,country code
/// (country_importer.h). The same content gives the same result, whatever the order of the rows.
///
/// All or nothing: throws ImportError when the file cannot be read or anything in it is wrong.
/// Memory is bounded by the limits above. May be called from any thread.
ImportResult importTable(const std::string& path, const ImportOptions& options = {});

/// The same from a file that was read already, by TextSource::load with kMaxImportBytes.
ImportResult importTable(const TextSource& source, const ImportOptions& options = {});

}  // namespace tolvar::service
