#include "src/range_codec.h"

#include <array>
#include <bit>
#include <cstring>

namespace tolvar {
namespace {

constexpr std::size_t kLengthBytes = sizeof(std::uint64_t);
/// Fields are read and written eight bytes at a time, of which only the first belong to the field;
/// so many bytes of a node must follow the last field's head.
constexpr std::size_t kFieldBytes = sizeof(std::uint64_t);

std::uint64_t bigEndian(std::uint64_t value) noexcept {
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap64(value);
  return value;
}

/// Form of an integer field.
struct Form {
  std::uint8_t type;   ///< low nibble of the head
  std::uint8_t bytes;  ///< behind the head
  std::uint8_t shift;  ///< moves the value to the upper end of 64 bits
};

constexpr Form formOf(unsigned bits) {
  if (bits <= 7) return {static_cast<std::uint8_t>(qel::VekType::Int8), 1, 56};
  if (bits <= 15) return {static_cast<std::uint8_t>(qel::VekType::Int16), 2, 48};
  if (bits <= 31) return {static_cast<std::uint8_t>(qel::VekType::Int32), 4, 32};
  return {static_cast<std::uint8_t>(qel::VekType::Int64), 8, 0};
}

/// Shortest form of a value: entry 0 for zero, entry 1 + n for a value of n bits without its sign.
constexpr std::array<Form, 65> kShortest = [] {
  std::array<Form, 65> forms{};
  forms[0] = {static_cast<std::uint8_t>(qel::VekType::Zero), 0, 0};
  for (unsigned bits = 0; bits < 64; ++bits) forms[1 + bits] = formOf(bits);
  return forms;
}();

/// Writes a field at `out`, and zeros behind it; answers its end.
inline char* putField(char* out, unsigned tag, std::int64_t value) noexcept {
  const auto magnitude = static_cast<std::uint64_t>(value ^ (value >> 63));
  const auto bits = static_cast<unsigned>(std::bit_width(magnitude));
  const Form& form = kShortest[value == 0 ? 0 : 1 + bits];
  *out = static_cast<char>(tag << 4 | form.type);
  const std::uint64_t body = bigEndian(static_cast<std::uint64_t>(value) << form.shift);
  std::memcpy(out + 1, &body, sizeof body);
  return out + 1 + form.bytes;
}

/// Takes fields in the order in which they are written. After the first that is not as expected
/// `good` stays false and the values mean nothing.
class FieldReader {
 public:
  explicit FieldReader(const MemNode& node) noexcept
      : _length(node.encodedLength()),
        _at(node.m_buffer + kLengthBytes),
        _end(_at + (_length <= kLongest ? _length : 0)) {}

  /// The next field, an integer of at most 2^`widest` bytes.
  std::int64_t integer(unsigned tag, unsigned widest) noexcept {
    if (_at >= _end) return fail();
    const auto head = static_cast<unsigned char>(*_at);
    const unsigned type = head & 15u;
    if (head >> 4 != tag) return fail();
    if (type == static_cast<unsigned>(qel::VekType::Zero)) {
      ++_at;
      return 0;
    }
    if (type > widest) return fail();
    const std::size_t bytes = std::size_t{1} << type;
    std::uint64_t body;
    std::memcpy(&body, _at + 1, sizeof body);
    _at += 1 + bytes;
    if (_at > _end) return fail();
    return static_cast<std::int64_t>(bigEndian(body)) >> (64 - 8 * bytes);
  }

  /// The next field, a string of at most 255 bytes.
  void text(unsigned tag, std::string* out) {
    const unsigned head = tag << 4 | static_cast<unsigned>(qel::VekType::ShortString);
    if (_end - _at < 2 || static_cast<unsigned char>(*_at) != head) {
      fail();
      return;
    }
    const std::size_t bytes = static_cast<unsigned char>(_at[1]);
    if (bytes > static_cast<std::size_t>(_end - _at - 2)) {
      fail();
      return;
    }
    out->assign(_at + 2, bytes);
    _at += 2 + bytes;
  }

  bool good() const noexcept { return _good; }

 private:
  /// A longer encoding is read the other way: a field might be read beyond the node's end here.
  static constexpr std::size_t kLongest = MemNode::kRoom - kFieldBytes;

  std::int64_t fail() noexcept {
    _good = false;
    _at = _end;
    return 0;
  }

  const std::uint64_t _length;
  const char* _at;
  const char* const _end;
  bool _good = true;
};

constexpr unsigned kWidestInt = 2;   // 4 bytes
constexpr unsigned kWidestLong = 3;  // 8 bytes

template <class Record>
bool readRange(const MemNode& node, Record* range) noexcept {
  FieldReader fields(node);
  const auto word = [&](unsigned tag) {
    return static_cast<std::uint32_t>(fields.integer(tag, kWidestLong));
  };
  range->startIP = word(0);
  range->endIP = word(1);
  range->place = fields.integer(2, kWidestLong);
  range->extend = word(3);
  range->oper = word(4);
  range->nettype = word(5);
  range->apn = word(6);
  range->flable = word(7);
  return fields.good();
}

}  // namespace

void encodeRange(const ravel::IPProperty& range, MemNode* node) noexcept {
  std::memset(node->m_buffer, 0, sizeof node->m_buffer);
  char* const begin = node->m_buffer + kLengthBytes;
  char* out = putField(begin, 0, range.startIP);
  out = putField(out, 1, range.endIP);
  out = putField(out, 2, range.place);
  out = putField(out, 3, range.extend);
  out = putField(out, 4, range.oper);
  out = putField(out, 5, range.nettype);
  out = putField(out, 6, range.apn);
  out = putField(out, 7, range.flable);
  const auto length = static_cast<std::uint64_t>(out - begin);
  std::memcpy(node->m_buffer, &length, sizeof length);
}

void decodeNode(const MemNode& node, ravel::IPAttribute* record) {
  if (!readRange(node, record)) node.ParseTo(record);
}

void decodeNode(const MemNode& node, ravel::IPProperty* record) {
  if (readRange(node, record)) return;
  ravel::IPAttribute range;
  node.ParseTo(&range);
  record->startIP = range.startIP;
  record->endIP = range.endIP;
  record->place = range.place;
  record->extend = range.extend;
  record->oper = range.oper;
  record->nettype = range.nettype;
  record->apn = range.apn;
  record->flable = range.flable;
}

void decodeNode(const MemNode& node, ravel::CodeInfo* record) {
  FieldReader fields(node);
  record->codeType = static_cast<std::int32_t>(fields.integer(0, kWidestInt));
  record->ID = fields.integer(1, kWidestLong);
  fields.text(2, &record->content);
  if (!fields.good()) node.ParseTo(record);
}

}  // namespace tolvar
