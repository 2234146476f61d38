#pragma once

#include "service/importer.h"
#include "service/text_source.h"

namespace tolvar::service {

/// Reads the form start,end,CC: first and last address (integer or dotted quad) and a two-letter
/// country code, no header; lines that begin with '#' and blank lines do not count. Debian's
/// package tor-geoipdb carries such a file.
///
/// Ids are those of IsoCountries, so they never depend on other rows. Two capital letters that no
/// list explains are taken with a warning; any other code is a fault. Throws ImportError.
ImportResult importCountries(const TextSource& source, const ImportOptions& options);

}  // namespace tolvar::service
