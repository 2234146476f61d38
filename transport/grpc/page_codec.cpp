#include "transport/grpc/page_codec.h"

#include <algorithm>
#include <limits>
#include <string>

#include "tolvar.pb.h"
#include "transport/grpc/message_parser.h"
#include "transport/grpc/plain_page.h"

namespace tolvar::wire {
namespace {

using google::protobuf::RepeatedField;
using ravel::IPProperty;

constexpr std::int64_t kMaxUint32 = std::numeric_limits<std::uint32_t>::max();

std::uint64_t cursorOf(const IPProperty& range) noexcept {
  return static_cast<std::uint64_t>(range.timesTamp) << 32 | range.sequence;
}

/// Fills a column unless all its values are 0.
template <class T, class ValueAt>
void encodeColumn(std::size_t records, RepeatedField<T>& column, ValueAt valueAt) {
  column.Resize(static_cast<int>(records), 0);
  T any = 0;
  for (std::size_t i = 0; i < records; ++i) {
    const T value = valueAt(i);
    column[static_cast<int>(i)] = value;
    any |= value;
  }
  if (any == 0) column.Clear();
}

void encodeDeltas(std::span<const IPProperty> ranges, std::uint32_t IPProperty::*field,
                  RepeatedField<std::int64_t>& column) {
  std::int64_t last = 0;
  encodeColumn(ranges.size(), column, [&](std::size_t i) {
    const std::int64_t value = ranges[i].*field;
    const std::int64_t delta = value - last;
    last = value;
    return delta;
  });
}

template <class T, class Field>
void encodePlain(std::span<const IPProperty> ranges, Field IPProperty::*field,
                 RepeatedField<T>& column) {
  encodeColumn(ranges.size(), column, [&](std::size_t i) { return ranges[i].*field; });
}

/// A column of a received page; reads as zeros when it was left out.
template <class T>
class Column {
 public:
  Column(const char* name, const RepeatedField<T>& values, std::uint32_t records)
      : _values(values.empty() ? nullptr : values.data()) {
    const auto length = static_cast<std::uint32_t>(values.size());
    if (length != 0 && length != records)
      throw WireError(std::string("column ") + name + " has " + std::to_string(length) +
                      " values for " + std::to_string(records) + " records");
  }

  T at(std::size_t i) const noexcept { return _values == nullptr ? 0 : _values[i]; }
  bool absent() const noexcept { return _values == nullptr; }

 private:
  const T* _values;
};

[[noreturn]] void badRecord(std::size_t index, const std::string& what) {
  throw WireError("record " + std::to_string(index) + ": " + what);
}

/// Adds up a delta column, value by value.
class DeltaReader {
 public:
  DeltaReader(const char* name, const RepeatedField<std::int64_t>& values, std::uint32_t records)
      : _name(name), _column(name, values, records) {}

  std::uint32_t next(std::size_t i) {
    const std::int64_t delta = _column.at(i);
    // The bounds of the difference come first: they keep the sum from overflowing.
    if (delta < -kMaxUint32 || delta > kMaxUint32 || _sum + delta < 0 || _sum + delta > kMaxUint32)
      badRecord(i, std::string(_name) + " leaves 0 to 4294967295");
    _sum += delta;
    return static_cast<std::uint32_t>(_sum);
  }

 private:
  const char* _name;
  Column<std::int64_t> _column;
  std::int64_t _sum = 0;
};

std::string cursorText(std::uint64_t value) {
  return std::to_string(value >> 32) + ":" + std::to_string(value & 0xffffffffu);
}

/// Cursor and address columns, which later checks rely on.
void decodeRanges(const v1::Page& page, std::span<IPProperty> ranges) {
  const std::uint32_t records = page.records();
  DeltaReader times("times_tamp_delta", page.times_tamp_delta(), records);
  DeltaReader sequences("sequence_delta", page.sequence_delta(), records);
  DeltaReader starts("start_ip_delta", page.start_ip_delta(), records);
  const Column<std::uint32_t> offsets("end_ip_offset", page.end_ip_offset(), records);
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    IPProperty& range = ranges[i];
    range.timesTamp = times.next(i);
    range.sequence = sequences.next(i);
    range.startIP = starts.next(i);
    const std::uint32_t offset = offsets.at(i);
    if (offset > kMaxUint32 - range.startIP) badRecord(i, "the range ends behind 255.255.255.255");
    range.endIP = range.startIP + offset;
  }
}

template <class T, class Field>
void decodePlain(const char* name, const RepeatedField<T>& values, std::span<IPProperty> ranges,
                 Field IPProperty::*field) {
  const Column<T> column(name, values, static_cast<std::uint32_t>(ranges.size()));
  if (column.absent()) return;
  for (std::size_t i = 0; i < ranges.size(); ++i) ranges[i].*field = column.at(i);
}

void checkCursors(std::span<const IPProperty> ranges, const PageQuery& query,
                  std::uint64_t endIndex, bool isReset) {
  std::uint64_t last = isReset ? 0 : query.cursor();
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    const std::uint64_t cursor = cursorOf(ranges[i]);
    if (cursor <= last)
      badRecord(i, "cursor " + cursorText(cursor) + " does not follow " + cursorText(last));
    last = cursor;
  }
  if (!ranges.empty() && last > endIndex)
    badRecord(ranges.size() - 1,
              "cursor " + cursorText(last) + " passes the end index " + cursorText(endIndex));
}

/// An empty page ends a download, so it must not come while ranges are missing. A reset may
/// announce a table without ranges: its end index has the sequence 0, or lies just above a foreign
/// cursor.
void checkEmpty(const PageQuery& query, std::uint64_t endIndex, bool isReset) {
  const bool emptyTable =
      isReset && ((endIndex & 0xffffffffu) == 0 || endIndex == query.cursor() + 1);
  if (!emptyTable && query.cursor() < endIndex)
    throw WireError("the page is empty, but the table goes on from " + cursorText(query.cursor()) +
                    " to " + cursorText(endIndex));
}

void checkHead(const v1::Page& page, const PageQuery& query) {
  const std::uint32_t limit = std::min(query.size, kMaxPageRecords);
  if (page.records() > limit)
    throw WireError("the page announces " + std::to_string(page.records()) + " records, at most " +
                    std::to_string(limit) + " were asked for");
  if (page.is_download_reset() < std::numeric_limits<std::int8_t>::min() ||
      page.is_download_reset() > std::numeric_limits<std::int8_t>::max())
    throw WireError("is_download_reset " + std::to_string(page.is_download_reset()) +
                    " is not in -128 to 127");
  // Without this column a page could announce records that take no bytes.
  if (page.records() != 0 && page.sequence_delta().empty() && page.times_tamp_delta().empty())
    throw WireError("the page has " + std::to_string(page.records()) + " records without cursors");
}

}  // namespace

void encodePage(const PageHead& head, std::span<const IPProperty> ranges, v1::Page& page) {
  if (ranges.size() > kMaxPageRecords)
    throw WireError(std::to_string(ranges.size()) + " records do not fit a page of at most " +
                    std::to_string(kMaxPageRecords));
  for (std::size_t i = 0; i < ranges.size(); ++i)
    if (ranges[i].endIP < ranges[i].startIP) badRecord(i, "the range ends before it starts");
  page.Clear();
  page.set_high_max_index(static_cast<std::uint32_t>(head.endIndex >> 32));
  page.set_low_max_index(static_cast<std::uint32_t>(head.endIndex));
  page.set_is_download_reset(head.isdownloadReset);
  page.set_records(static_cast<std::uint32_t>(ranges.size()));
  encodeDeltas(ranges, &IPProperty::timesTamp, *page.mutable_times_tamp_delta());
  encodeDeltas(ranges, &IPProperty::sequence, *page.mutable_sequence_delta());
  encodeDeltas(ranges, &IPProperty::startIP, *page.mutable_start_ip_delta());
  encodeColumn(ranges.size(), *page.mutable_end_ip_offset(),
               [&](std::size_t i) { return ranges[i].endIP - ranges[i].startIP; });
  encodePlain(ranges, &IPProperty::place, *page.mutable_place());
  encodePlain(ranges, &IPProperty::extend, *page.mutable_extend());
  encodePlain(ranges, &IPProperty::oper, *page.mutable_oper());
  encodePlain(ranges, &IPProperty::nettype, *page.mutable_nettype());
  encodePlain(ranges, &IPProperty::apn, *page.mutable_apn());
  encodePlain(ranges, &IPProperty::flable, *page.mutable_flable());
}

void decodePage(const v1::Page& page, const PageQuery& query, ravel::downloadInfo& info) {
  checkHead(page, query);
  info.highMaxIndex = page.high_max_index();
  info.lowMaxIndex = page.low_max_index();
  info.isdownloadReset = static_cast<std::int8_t>(page.is_download_reset());
  info.IPContent.assign(page.records(), IPProperty());
  const std::span<IPProperty> ranges(info.IPContent);
  decodeRanges(page, ranges);
  decodePlain("place", page.place(), ranges, &IPProperty::place);
  decodePlain("extend", page.extend(), ranges, &IPProperty::extend);
  decodePlain("oper", page.oper(), ranges, &IPProperty::oper);
  decodePlain("nettype", page.nettype(), ranges, &IPProperty::nettype);
  decodePlain("apn", page.apn(), ranges, &IPProperty::apn);
  decodePlain("flable", page.flable(), ranges, &IPProperty::flable);

  const std::uint64_t endIndex =
      static_cast<std::uint64_t>(info.highMaxIndex) << 32 | info.lowMaxIndex;
  const bool isReset = info.isdownloadReset == 1;
  if (ranges.empty())
    checkEmpty(query, endIndex, isReset);
  else
    checkCursors(ranges, query, endIndex, isReset);
}

void decodePage(const PageBytes& page, const PageQuery& query, ravel::downloadInfo& info) {
  if (decodePlainPage(page, query, info)) return;
  v1::Page message;
  parseBounded(page.bytes(), message);
  decodePage(message, query, info);
}

namespace {

void checkCodeType(std::int32_t type) {
  if (type < kFirstCodeType || type > kLastCodeType)
    throw WireError("code type " + std::to_string(type) + " is not in " +
                    std::to_string(kFirstCodeType) + " to " + std::to_string(kLastCodeType));
}

}  // namespace

void encodeCodes(std::span<const ravel::CodeInfo> codes, v1::Codes& message) {
  if (codes.size() > kMaxCodeEntries)
    throw WireError(std::to_string(codes.size()) + " code entries, at most " +
                    std::to_string(kMaxCodeEntries) + " can be sent");
  message.Clear();
  message.set_entries(static_cast<std::uint32_t>(codes.size()));
  v1::CodeRun* run = nullptr;
  std::uint64_t last = 0;
  for (const ravel::CodeInfo& code : codes) {
    if (code.content.size() > kMaxNameBytes)
      throw WireError("the name of code " + std::to_string(code.ID) + " of type " +
                      std::to_string(code.codeType) + " has " +
                      std::to_string(code.content.size()) + " bytes, at most " +
                      std::to_string(kMaxNameBytes) + " can be sent");
    if (run == nullptr || run->code_type() != code.codeType) {
      checkCodeType(code.codeType);
      if (static_cast<std::size_t>(message.run_size()) == kMaxCodeRuns)
        throw WireError("the entries change their type more than " + std::to_string(kMaxCodeRuns) +
                        " times");
      run = message.add_run();
      run->set_code_type(code.codeType);
      last = 0;
    }
    // Unsigned, so that the difference of any two ids is defined.
    const auto id = static_cast<std::uint64_t>(code.ID);
    run->add_id_delta(static_cast<std::int64_t>(id - last));
    run->add_content(code.content);
    last = id;
  }
}

namespace {

void checkCodes(const v1::Codes& message) {
  std::size_t total = 0;
  for (const v1::CodeRun& run : message.run()) {
    checkCodeType(run.code_type());
    if (run.id_delta_size() == 0 && run.content_size() == 0)
      throw WireError("a run of code type " + std::to_string(run.code_type()) + " has no entries");
    if (run.id_delta_size() != run.content_size())
      throw WireError("a run of code type " + std::to_string(run.code_type()) + " has " +
                      std::to_string(run.id_delta_size()) + " ids and " +
                      std::to_string(run.content_size()) + " names");
    total += static_cast<std::size_t>(run.id_delta_size());
  }
  if (total != message.entries())
    throw WireError("the code tables announce " + std::to_string(message.entries()) +
                    " entries and hold " + std::to_string(total));
  if (total > kMaxCodeEntries)
    throw WireError("the code tables hold " + std::to_string(total) + " entries, at most " +
                    std::to_string(kMaxCodeEntries) + " are accepted");
}

}  // namespace

void decodeCodes(const v1::Codes& message, std::vector<ravel::CodeInfo>& codes) {
  checkCodes(message);
  codes.clear();
  codes.reserve(message.entries());
  for (const v1::CodeRun& run : message.run()) {
    std::uint64_t id = 0;
    for (int i = 0; i < run.id_delta_size(); ++i) {
      id += static_cast<std::uint64_t>(run.id_delta(i));
      if (run.content(i).size() > kMaxNameBytes)
        throw WireError("a name of code type " + std::to_string(run.code_type()) + " has " +
                        std::to_string(run.content(i).size()) + " bytes, at most " +
                        std::to_string(kMaxNameBytes) + " are accepted");
      ravel::CodeInfo& code = codes.emplace_back();
      code.codeType = run.code_type();
      code.ID = static_cast<std::int64_t>(id);
      code.content = run.content(i);
    }
  }
}

}  // namespace tolvar::wire
