#include "transport/grpc/field_counts.h"

#include <algorithm>
#include <map>
#include <string>

#include "transport/grpc/page_codec.h"

namespace tolvar::wire {
namespace {

using Bytes = std::span<const std::uint8_t>;

enum WireType : std::uint32_t { kVarint, kFixed64, kLength, kGroupBegin, kGroupEnd, kFixed32 };

/// Takes an encoded message apart, field by field.
class Fields {
 public:
  explicit Fields(Bytes bytes) : _rest(bytes) {}

  /// Goes to the next field; false at the end, and when what follows is no field. A group counts as
  /// two fields, its begin and its end, around its own.
  bool next() noexcept {
    if (_rest.empty()) return false;
    // Parsers look at the low 32 bits only.
    const auto tag = static_cast<std::uint32_t>(takeVarint());
    _number = tag >> 3;
    _type = tag & 7;
    _content = {};
    switch (_type) {
      case kVarint: takeVarint(); break;
      case kFixed64: take(8); break;
      case kLength: _content = take(takeVarint()); break;
      case kGroupBegin:
      case kGroupEnd: break;
      case kFixed32: take(4); break;
      default: _isWhole = false;
    }
    return _isWhole;
  }

  /// False when the bytes are no fields to their end.
  bool isWhole() const noexcept { return _isWhole; }

  std::uint32_t number() const noexcept { return _number; }
  bool hasLength() const noexcept { return _type == kLength; }
  /// Of a field with a length; else empty.
  Bytes content() const noexcept { return _content; }

 private:
  Bytes take(std::uint64_t size) noexcept {
    _isWhole = _isWhole && size <= _rest.size();
    if (!_isWhole) return {};
    const Bytes taken = _rest.first(static_cast<std::size_t>(size));
    _rest = _rest.subspan(taken.size());
    return taken;
  }

  std::uint64_t takeVarint() noexcept {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 70 && !_rest.empty(); shift += 7) {
      const std::uint8_t byte = _rest.front();
      _rest = _rest.subspan(1);
      value |= std::uint64_t{byte & 0x7fu} << shift;
      if (byte < 0x80) return value;
    }
    _isWhole = false;
    return 0;
  }

  Bytes _rest;
  bool _isWhole = true;
  std::uint32_t _number = 0;
  std::uint32_t _type = 0;
  Bytes _content;
};

class Counter {
 public:
  explicit Counter(std::size_t others) : _othersLeft(others), _others(others) {}

  /// False when the message or one in it is none.
  bool count(Bytes message, std::span<const FieldLimit> limits) {
    Fields fields(message);
    while (fields.next()) {
      const auto limit = std::find_if(limits.begin(), limits.end(), [&](const FieldLimit& known) {
        return known.number == fields.number();
      });
      if (limit == limits.end())
        countOther();
      else if (!countField(fields, *limit))
        return false;
    }
    return fields.isWhole();
  }

 private:
  void countOther() {
    if (_othersLeft == 0)
      throw WireError("there are more than " + std::to_string(_others) + " other fields");
    --_othersLeft;
  }

  bool countField(const Fields& field, const FieldLimit& limit) {
    std::size_t& seen = _seen[&limit];
    seen += elementsOf(field, limit);
    if (seen > limit.most)
      throw WireError(std::string("there are more than ") + std::to_string(limit.most) + " of " +
                      limit.name);
    return limit.content != FieldLimit::Content::Message || count(field.content(), limit.inside);
  }

  static std::size_t elementsOf(const Fields& field, const FieldLimit& limit) {
    if (limit.content != FieldLimit::Content::Numbers || !field.hasLength()) return 1;
    // Every number ends with the one byte of it that has its top bit clear.
    const Bytes packed = field.content();
    return static_cast<std::size_t>(
        std::count_if(packed.begin(), packed.end(), [](std::uint8_t byte) { return byte < 0x80; }));
  }

  std::map<const FieldLimit*, std::size_t> _seen;
  std::size_t _othersLeft;
  const std::size_t _others;
};

}  // namespace

bool checkFieldCounts(std::span<const std::uint8_t> message, const MessageLimits& limits) {
  return Counter(limits.others).count(message, limits.fields);
}

}  // namespace tolvar::wire
