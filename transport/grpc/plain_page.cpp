#include "transport/grpc/plain_page.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>

#include "transport/grpc/packed_column.h"

namespace tolvar::wire {
namespace {

static_assert(PageBytes::kReadAhead >= PackedColumn::kReadAhead);

using ravel::IPProperty;

// Field numbers of the contract.
enum Field : std::size_t {
  kHighMaxIndex = 1,
  kLowMaxIndex,
  kIsDownloadReset,
  kRecords,
  kTimes,
  kSequences,
  kStarts,
  kEndOffsets,
  kPlace,
  kExtend,
  kOper,
  kNettype,
  kApn,
  kFlable,
  kFieldEnd
};

constexpr std::size_t kFirstColumn = kTimes;
constexpr std::size_t kWireVarint = 0;
constexpr std::size_t kWireLength = 2;

/// Records decoded at a time: their columns stay in the nearest cache.
constexpr std::size_t kBlock = 512;

/// A page taken apart: its numbers, and where its columns lie.
struct PlainFields {
  std::array<std::uint64_t, kFirstColumn> numbers{};
  std::array<std::span<const std::uint8_t>, kFieldEnd> columns{};
};

class FieldReader {
 public:
  explicit FieldReader(std::span<const std::uint8_t> bytes) : _rest(bytes) {}

  std::optional<PlainFields> read() {
    PlainFields fields;
    while (!_rest.empty())
      if (!readField(fields)) return std::nullopt;
    return fields;
  }

 private:
  bool readField(PlainFields& fields) {
    // Every field of the contract has a tag of one byte.
    const std::size_t field = _rest[0] >> 3;
    const std::size_t type = _rest[0] & 7;
    if (field == 0 || field >= kFieldEnd) return false;
    if (type != (field < kFirstColumn ? kWireVarint : kWireLength)) return false;
    _rest = _rest.subspan(1);
    const std::optional<std::uint64_t> number = readVarint();
    if (!number) return false;
    if (field < kFirstColumn) {
      fields.numbers[field] = *number;
      return true;
    }
    if (*number > _rest.size() || !fields.columns[field].empty()) return false;
    fields.columns[field] = _rest.first(*number);
    _rest = _rest.subspan(*number);
    return true;
  }

  std::optional<std::uint64_t> readVarint() {
    std::uint64_t value = 0;
    // Nine bytes: more than any honest head or length takes.
    for (std::size_t i = 0; i < 9 && i < _rest.size(); ++i) {
      value |= std::uint64_t{_rest[i] & 0x7fu} << 7 * i;
      if (_rest[i] < 0x80) {
        _rest = _rest.subspan(i + 1);
        return value;
      }
    }
    return std::nullopt;
  }

  std::span<const std::uint8_t> _rest;
};

std::uint64_t unZigZag(std::uint64_t value) noexcept { return value >> 1 ^ (0 - (value & 1)); }

/// The columns of up to kBlock records. What was left out stays 0.
struct Block {
  std::array<std::uint64_t, kBlock> times{};
  std::array<std::uint64_t, kBlock> sequences{};
  std::array<std::uint64_t, kBlock> starts{};
  std::array<std::uint32_t, kBlock> endOffsets{};
  std::array<std::int64_t, kBlock> place{};
  std::array<std::array<std::uint32_t, kBlock>, kFieldEnd - kExtend> rest{};
};

/// Where the decoding of a page stands: sums of the cursor columns, and the last cursor.
struct CursorSums {
  std::uint64_t time = 0;
  std::uint64_t sequence = 0;
  std::uint64_t last = 0;
};

/// Adds up the cursors of a block. Sums are unsigned and may wrap: one that lies in 0 to 2^32 - 1
/// followed from one that did is right, because the difference then had to be within +-(2^32 - 1).
class AnyCursors {
 public:
  AnyCursors(const Block& block, const CursorSums& sums) : _block(block), _sums(sums) {}

  void next(std::size_t i) noexcept {
    _sums.time += unZigZag(_block.times[i]);
    _sums.sequence += unZigZag(_block.sequences[i]);
    _outside |= _sums.time | _sums.sequence;
    const std::uint64_t cursor = _sums.time << 32 | _sums.sequence;
    _unordered |= cursor <= _sums.last;
    _sums.last = cursor;
  }

  const CursorSums& sums() const noexcept { return _sums; }
  bool right() const noexcept { return _outside >> 32 == 0 && !_unordered; }

 private:
  const Block& _block;
  CursorSums _sums;
  std::uint64_t _outside = 0;
  bool _unordered = false;
};

/// The same where times stay and sequences count up by one, as they do in all but the first record
/// of a service's page.
class CountingCursors {
 public:
  CountingCursors(const CursorSums& sums, std::size_t count) : _sums(sums) {
    const std::uint64_t first = sums.time << 32 | (sums.sequence + 1);
    const std::uint64_t end = sums.sequence + count;
    _right = (sums.time | end) >> 32 == 0 && first > sums.last;
    _sums.last = sums.time << 32 | end;
  }

  void next(std::size_t) noexcept { ++_sums.sequence; }

  const CursorSums& sums() const noexcept { return _sums; }
  bool right() const noexcept { return _right; }

 private:
  CursorSums _sums;
  bool _right;
};

class BlockDecoder {
 public:
  BlockDecoder(const PlainFields& fields, std::uint64_t lastCursor) : _sums{0, 0, lastCursor} {
    for (std::size_t field = kFirstColumn; field < kFieldEnd; ++field)
      if (!fields.columns[field].empty()) _columns[field] = PackedColumn(fields.columns[field]);
  }

  /// At most kBlock records.
  bool decode(std::span<IPProperty> records) noexcept {
    const std::size_t count = records.size();
    if (skipCountingCursors(count))
      return takeColumns(count) && build(records, CountingCursors(_sums, count));
    return takeColumn(kTimes, count, _block.times.data()) &&
           takeColumn(kSequences, count, _block.sequences.data()) && takeColumns(count) &&
           build(records, AnyCursors(_block, _sums));
  }

  bool atEnd() const noexcept {
    return std::all_of(_columns.begin(), _columns.end(),
                       [](const PackedColumn& column) { return column.atEnd(); });
  }

  std::uint64_t lastCursor() const noexcept { return _sums.last; }

 private:
  template <class T>
  bool takeColumn(std::size_t field, std::size_t count, T* out) noexcept {
    return _columns[field].absent() || _columns[field].take(count, out);
  }

  bool skipCountingCursors(std::size_t count) noexcept {
    constexpr std::uint8_t kZigZagOne = 2;
    const bool sameTime = _columns[kTimes].absent() || _columns[kTimes].startsWithRun(count, 0);
    if (!sameTime || _columns[kSequences].absent() ||
        !_columns[kSequences].startsWithRun(count, kZigZagOne))
      return false;
    if (!_columns[kTimes].absent()) _columns[kTimes].skipRun(count);
    _columns[kSequences].skipRun(count);
    return true;
  }

  /// All columns but the cursors'.
  bool takeColumns(std::size_t count) noexcept {
    bool whole = takeColumn(kStarts, count, _block.starts.data()) &&
                 takeColumn(kEndOffsets, count, _block.endOffsets.data()) &&
                 takeColumn(kPlace, count, _block.place.data());
    for (std::size_t field = kExtend; field < kFieldEnd; ++field)
      whole = whole && takeColumn(field, count, _block.rest[field - kExtend].data());
    return whole;
  }

  /// Adds up and checks. What AnyCursors says of sums is true of addresses too.
  template <class Cursors>
  bool build(std::span<IPProperty> records, Cursors cursors) noexcept {
    std::uint64_t start = _start;
    std::uint64_t outside = 0;
    for (std::size_t i = 0; i < records.size(); ++i) {
      cursors.next(i);
      start += unZigZag(_block.starts[i]);
      const std::uint64_t end = start + _block.endOffsets[i];
      outside |= start | end;
      IPProperty& record = records[i];
      record.timesTamp = static_cast<std::uint32_t>(cursors.sums().time);
      record.sequence = static_cast<std::uint32_t>(cursors.sums().sequence);
      record.startIP = static_cast<std::uint32_t>(start);
      record.endIP = static_cast<std::uint32_t>(end);
      record.place = _block.place[i];
      record.extend = _block.rest[kExtend - kExtend][i];
      record.oper = _block.rest[kOper - kExtend][i];
      record.nettype = _block.rest[kNettype - kExtend][i];
      record.apn = _block.rest[kApn - kExtend][i];
      record.flable = _block.rest[kFlable - kExtend][i];
    }
    _start = start;
    _sums = cursors.sums();
    return outside >> 32 == 0 && cursors.right();
  }

  std::array<PackedColumn, kFieldEnd> _columns{};
  Block _block;
  CursorSums _sums;
  std::uint64_t _start = 0;
};

/// False unless the page holds records, no more than asked for, and cursors for them.
bool headIsPlain(const PlainFields& fields, const PageQuery& query) {
  const std::uint64_t records = fields.numbers[kRecords];
  if (records == 0 || records > std::min(query.size, kMaxPageRecords)) return false;
  if (fields.columns[kTimes].empty() && fields.columns[kSequences].empty()) return false;
  for (std::size_t field = kFirstColumn; field < kFieldEnd; ++field) {
    const std::size_t size = fields.columns[field].size();
    if (size != 0 && size < records) return false;
  }
  constexpr auto kMaxUint32 = std::numeric_limits<std::uint32_t>::max();
  constexpr auto kMaxInt8 = static_cast<std::uint64_t>(std::numeric_limits<std::int8_t>::max());
  return fields.numbers[kHighMaxIndex] <= kMaxUint32 &&
         fields.numbers[kLowMaxIndex] <= kMaxUint32 && fields.numbers[kIsDownloadReset] <= kMaxInt8;
}

/// The sum of a column's first `records` differences, modulo 2^64; nothing when there are fewer.
std::optional<std::uint64_t> sumOf(std::span<const std::uint8_t> bytes, std::size_t records) {
  if (bytes.empty()) return 0;
  PackedColumn column(bytes);
  std::uint64_t sum = 0;
  std::array<std::uint64_t, kBlock> values;
  for (std::size_t left = records; left != 0;) {
    const std::size_t count = left == records ? 1 : std::min(kBlock, left);
    left -= count;
    // What all but the first values of the columns that this is for mostly are.
    const std::uint8_t same = column.startsWithRun(count, 0) ? 0 : 2;
    if (column.startsWithRun(count, same)) {
      column.skipRun(count);
      sum += count * unZigZag(same);
      continue;
    }
    if (!column.take(count, values.data())) return std::nullopt;
    for (std::size_t i = 0; i < count; ++i) sum += unZigZag(values[i]);
  }
  return sum;
}

}  // namespace

bool decodePlainPage(const PageBytes& page, const PageQuery& query, ravel::downloadInfo& info) {
  const std::optional<PlainFields> fields = FieldReader(page.bytes()).read();
  if (!fields || !headIsPlain(*fields, query)) return false;
  const auto records = static_cast<std::size_t>(fields->numbers[kRecords]);
  info.highMaxIndex = static_cast<std::uint32_t>(fields->numbers[kHighMaxIndex]);
  info.lowMaxIndex = static_cast<std::uint32_t>(fields->numbers[kLowMaxIndex]);
  info.isdownloadReset = static_cast<std::int8_t>(fields->numbers[kIsDownloadReset]);
  info.IPContent.clear();
  info.IPContent.reserve(records);
  BlockDecoder decoder(*fields, info.isdownloadReset == 1 ? 0 : query.cursor());
  for (std::size_t first = 0; first < records; first += kBlock) {
    const std::size_t count = std::min(kBlock, records - first);
    info.IPContent.resize(first + count);
    if (!decoder.decode(std::span(info.IPContent).subspan(first))) return false;
  }
  const std::uint64_t endIndex = std::uint64_t{info.highMaxIndex} << 32 | info.lowMaxIndex;
  return decoder.atEnd() && decoder.lastCursor() <= endIndex;
}

std::optional<PageQuery> queryBehind(const PageBytes& page, const PageQuery& query) {
  const std::optional<PlainFields> fields = FieldReader(page.bytes()).read();
  if (!fields || !headIsPlain(*fields, query)) return std::nullopt;
  const auto records = static_cast<std::size_t>(fields->numbers[kRecords]);
  const std::optional<std::uint64_t> time = sumOf(fields->columns[kTimes], records);
  const std::optional<std::uint64_t> sequence = sumOf(fields->columns[kSequences], records);
  if (!time || !sequence || (*time | *sequence) >> 32 != 0) return std::nullopt;
  const PageQuery next{static_cast<std::uint32_t>(*time), static_cast<std::uint32_t>(*sequence),
                       query.size};
  const std::uint64_t endIndex =
      fields->numbers[kHighMaxIndex] << 32 | fields->numbers[kLowMaxIndex];
  if (next.cursor() >= endIndex || next.cursor() == query.cursor()) return std::nullopt;
  return next;
}

}  // namespace tolvar::wire
