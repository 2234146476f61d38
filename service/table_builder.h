#pragma once

#include <cstdint>
#include <vector>

#include "service/importer.h"
#include "service/name_table.h"
#include "service/text_source.h"

namespace tolvar::service {

/// Gathers the rows of one import and turns them into a table when all are there. Used by one
/// thread at a time.
class TableBuilder {
 public:
  /// One row. Names are handles of `names()`.
  struct Row {
    std::uint32_t startIP = 0;
    std::uint32_t endIP = 0;
    NameTable::Handle place = 0;
    NameTable::Handle extend = 0;
    NameTable::Handle oper = 0;
    NameTable::Handle nettype = 0;
    NameTable::Handle apn = 0;
    std::uint32_t flable = 0;
    std::uint32_t offset = 0;  ///< where the row begins in the source
  };

  TableBuilder(const TextSource& source, const IsoCountries& countries)
      : _source(source), _faults(source), _names(countries, _faults) {}

  FaultList& faults() noexcept { return _faults; }
  NameTable& names() noexcept { return _names; }

  /// Takes a row; one too many is a fault.
  void add(const Row& row);

  /// Checks the rows against each other, gives the names their ids and makes the table. `ids` is
  /// what earlier imports gave. Throws ImportError when there was any fault.
  ImportResult finish(IdRegistry ids);

 private:
  void sortRows();
  void checkOverlaps();

  const TextSource& _source;
  FaultList _faults;
  NameTable _names;
  std::vector<Row> _rows;
};

/// Reads an address into `*out`; adds a fault that begins with `what` when it is none.
bool readAddress(std::string_view text, std::size_t offset, const char* what, std::uint32_t* out,
                 FaultList& faults);

/// Adds a fault when `start` is above `end`.
bool checkOrder(std::uint32_t start, std::uint32_t end, std::size_t offset, FaultList& faults);

}  // namespace tolvar::service
