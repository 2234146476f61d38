#include "service/table_builder.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "service/address_text.h"

namespace tolvar::service {
namespace {

bool before(const TableBuilder::Row& a, const TableBuilder::Row& b) {
  return std::tie(a.startIP, a.endIP, a.offset) < std::tie(b.startIP, b.endIP, b.offset);
}

std::string rangeText(const TableBuilder::Row& row) {
  return formatIPv4(row.startIP) + "-" + formatIPv4(row.endIP);
}

}  // namespace

void TableBuilder::add(const Row& row) {
  if (_rows.size() < kMaxImportRanges) {
    _rows.push_back(row);
  } else if (_rows.size() == kMaxImportRanges) {
    _faults.add(row.offset,
                "too many ranges: expected at most " + std::to_string(kMaxImportRanges));
  }
}

void TableBuilder::sortRows() {
  if (!std::is_sorted(_rows.begin(), _rows.end(), before))
    std::sort(_rows.begin(), _rows.end(), before);
}

void TableBuilder::checkOverlaps() {
  const Row* reaching = nullptr;  // the row so far that reaches furthest
  for (const Row& row : _rows) {
    if (_faults.isFull()) return;
    if (reaching != nullptr && row.startIP <= reaching->endIP) {
      const auto [earlier, later] = std::minmax(
          row, *reaching, [](const Row& a, const Row& b) { return a.offset < b.offset; });
      _faults.add(later.offset, "range " + rangeText(later) + " overlaps range " +
                                    rangeText(earlier) + " of line " +
                                    std::to_string(_source.line(earlier.offset)) +
                                    "; expected ranges that share no address");
    }
    if (reaching == nullptr || row.endIP > reaching->endIP) reaching = &row;
  }
}

ImportResult TableBuilder::finish(IdRegistry ids) {
  ImportResult result;
  result.ids = std::move(ids);
  sortRows();
  checkOverlaps();
  _names.assignIds(result.ids);
  _faults.throwIfAny();

  result.table.ranges.reserve(_rows.size());
  for (const Row& row : _rows) {
    ravel::IPProperty& range = result.table.ranges.emplace_back();
    range.startIP = row.startIP;
    range.endIP = row.endIP;
    range.place = _names.place(row.place);
    range.extend = _names.id(row.extend);
    range.oper = _names.id(row.oper);
    range.nettype = _names.id(row.nettype);
    range.apn = _names.id(row.apn);
    range.flable = row.flable;
  }
  result.table.codes = _names.codes();
  result.warnings = _names.warnings();
  if (_rows.empty())
    result.warnings.push_back(
        {_source.name(), 0, 0, "the file holds no ranges; the table is empty"});
  return result;
}

bool readAddress(std::string_view text, std::size_t offset, const char* what, std::uint32_t* out,
                 FaultList& faults) {
  const auto address = parseAddress(text);
  if (address) {
    *out = *address;
    return true;
  }
  faults.add(offset, std::string(what) + " " + quoted(text) +
                         " is no IPv4 address; expected a dotted quad or an integer from 0 to "
                         "4294967295");
  return false;
}

bool checkOrder(std::uint32_t start, std::uint32_t end, std::size_t offset, FaultList& faults) {
  if (start <= end) return true;
  faults.add(offset, "start " + formatIPv4(start) + " is above end " + formatIPv4(end) +
                         "; expected start not above end");
  return false;
}

}  // namespace tolvar::service
