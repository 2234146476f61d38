#include "records/vek_stream.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace qel {
namespace {

/// Text of a failure, cut to the room that its kind has.
template <std::size_t Room, class... Args>
std::string format(const char* pattern, Args... args) {
  char text[Room];
  std::snprintf(text, sizeof text, pattern, args...);
  return text;
}

template <class T>
void putBigEndian(char* out, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i)
    out[i] = static_cast<char>(static_cast<std::uint64_t>(value) >> (8 * (sizeof(T) - 1 - i)));
}

template <class T>
void writeBody(BufferWriter& out, T value) {
  char bytes[sizeof(T)];
  putBigEndian(bytes, value);
  out.writeBuf(bytes, sizeof bytes);
}

/// Next sizeof(T) bytes as a big-endian unsigned number.
template <class T>
std::uint64_t readBody(BufferReader& in) {
  std::array<unsigned char, sizeof(T)> bytes;
  in.readBuf(bytes.data(), bytes.size());
  std::uint64_t value = 0;
  for (const unsigned char byte : bytes) value = value << 8 | byte;
  return value;
}

constexpr std::uint8_t code(VekType type) { return static_cast<std::uint8_t>(type); }

}  // namespace

void BufferWriter::grow(std::size_t size) {
  const std::size_t capacity = std::max<std::size_t>(2 * size, 128);
  char* buffer = new char[capacity];
  if (_length != 0) std::memcpy(buffer, _buffer, _length);
  delete[] _buffer;
  _buffer = buffer;
  _capacity = capacity;
}

void BufferWriter::writeBuf(const void* data, std::size_t size) {
  reserve(_length + size);
  if (size != 0) std::memcpy(_buffer + _length, data, size);
  _length += size;
}

void BufferReader::peekBuf(void* out, std::size_t size, std::size_t offset) const {
  const std::size_t left = remaining();
  if (offset > left || size > left - offset) {
    throw VekDecodeException(
        format<64>("buffer overflow when peekBuf, over %u.", static_cast<unsigned>(_length)));
  }
  if (size != 0) std::memcpy(out, _buffer + _position + offset, size);
}

void BufferReader::readBuf(void* out, std::size_t size) {
  peekBuf(out, size, 0);
  skip(size);
}

void DataHead::writeTo(BufferWriter& out, VekType type, std::uint8_t tag) {
  if (tag < 15) {
    const unsigned char head = static_cast<unsigned char>(tag << 4 | code(type));
    out.writeBuf(&head, 1);
    return;
  }
  const unsigned char head[2] = {static_cast<unsigned char>(0xF0 | code(type)), tag};
  out.writeBuf(head, sizeof head);
}

std::size_t DataHead::peekFrom(const BufferReader& in) {
  std::uint8_t first = 0;
  in.peekBuf(&first, 1, 0);
  _type = first & 0x0F;
  if ((first & 0xF0) != 0xF0) {
    _tag = first >> 4;
    return 1;
  }
  in.peekBuf(&_tag, 1, 1);
  return 2;
}

void DataHead::readFrom(BufferReader& in) { in.skip(peekFrom(in)); }

void VekOutputStream<BufferWriter>::write(char value, std::uint8_t tag) {
  if (value == 0) {
    DataHead::writeTo(*this, VekType::Zero, tag);
    return;
  }
  DataHead::writeTo(*this, VekType::Int8, tag);
  writeBuf(&value, 1);
}

void VekOutputStream<BufferWriter>::write(short value, std::uint8_t tag) {
  if (value >= -128 && value <= 127) return write(static_cast<char>(value), tag);
  DataHead::writeTo(*this, VekType::Int16, tag);
  writeBody(*this, value);
}

void VekOutputStream<BufferWriter>::write(int value, std::uint8_t tag) {
  if (value >= INT16_MIN && value <= INT16_MAX) return write(static_cast<short>(value), tag);
  DataHead::writeTo(*this, VekType::Int32, tag);
  writeBody(*this, value);
}

void VekOutputStream<BufferWriter>::write(long value, std::uint8_t tag) {
  if (value >= INT32_MIN && value <= INT32_MAX) return write(static_cast<int>(value), tag);
  DataHead::writeTo(*this, VekType::Int64, tag);
  writeBody(*this, value);
}

void VekOutputStream<BufferWriter>::write(unsigned int value, std::uint8_t tag) {
  write(static_cast<long>(value), tag);
}

void VekOutputStream<BufferWriter>::write(const std::string& value, std::uint8_t tag) {
  if (value.size() > kVekMaxStringSize) {
    throw VekDecodeInvalidValue(format<128>("invalid string size, tag: %d, size: %u",
                                            static_cast<int>(tag),
                                            static_cast<unsigned>(value.size())));
  }
  if (value.size() <= 255) {
    DataHead::writeTo(*this, VekType::ShortString, tag);
    writeBody(*this, static_cast<std::uint8_t>(value.size()));
  } else {
    DataHead::writeTo(*this, VekType::LongString, tag);
    writeBody(*this, static_cast<std::uint32_t>(value.size()));
  }
  writeBuf(value.data(), value.size());
}

bool VekInputStream<BufferReader>::skipToTag(std::uint8_t tag) {
  try {
    while (!hasEnd()) {
      DataHead head;
      const std::size_t length = head.peekFrom(*this);
      const bool closes = head.getType() == code(VekType::NestedClose);
      if (closes || head.getTag() >= tag) return !closes && head.getTag() == tag;
      skip(length);
      skipField(head.getType());
    }
  } catch (const VekDecodeException&) {
    // Input that ends or breaks before the field does not hold the field.
  }
  return false;
}

bool VekInputStream<BufferReader>::find(std::uint8_t tag, bool isRequire) {
  if (skipToTag(tag)) return true;
  if (isRequire) {
    throw VekDecodeRequireNotExist(
        format<64>("require field not exist, tag: %d", static_cast<int>(tag)));
  }
  return false;
}

void VekInputStream<BufferReader>::read(int& value, std::uint8_t tag, bool isRequire) {
  if (!find(tag, isRequire)) return;
  DataHead head;
  head.readFrom(*this);
  switch (static_cast<VekType>(head.getType())) {
    case VekType::Zero: value = 0; return;
    case VekType::Int8: value = static_cast<std::int8_t>(readBody<std::int8_t>(*this)); return;
    case VekType::Int16: value = static_cast<std::int16_t>(readBody<std::int16_t>(*this)); return;
    case VekType::Int32: value = static_cast<std::int32_t>(readBody<std::int32_t>(*this)); return;
    default:
      throw VekDecodeMismatch(format<64>("read 'Int32' type mismatch, tag: %d, get type: %d.",
                                         static_cast<int>(tag), static_cast<int>(head.getType())));
  }
}

void VekInputStream<BufferReader>::read(long& value, std::uint8_t tag, bool isRequire) {
  if (!find(tag, isRequire)) return;
  DataHead head;
  head.readFrom(*this);
  switch (static_cast<VekType>(head.getType())) {
    case VekType::Zero: value = 0; return;
    case VekType::Int8: value = static_cast<std::int8_t>(readBody<std::int8_t>(*this)); return;
    case VekType::Int16: value = static_cast<std::int16_t>(readBody<std::int16_t>(*this)); return;
    case VekType::Int32: value = static_cast<std::int32_t>(readBody<std::int32_t>(*this)); return;
    case VekType::Int64: value = static_cast<std::int64_t>(readBody<std::int64_t>(*this)); return;
    default:
      throw VekDecodeMismatch(format<64>("read 'Int64' type mismatch, tag: %d, get type: %d.",
                                         static_cast<int>(tag), static_cast<int>(head.getType())));
  }
}

void VekInputStream<BufferReader>::read(unsigned int& value, std::uint8_t tag, bool isRequire) {
  long wide = value;
  read(wide, tag, isRequire);
  value = static_cast<unsigned int>(wide);
}

void VekInputStream<BufferReader>::read(std::string& value, std::uint8_t tag, bool isRequire) {
  if (!find(tag, isRequire)) return;
  DataHead head;
  head.readFrom(*this);
  std::uint64_t length = 0;
  switch (static_cast<VekType>(head.getType())) {
    case VekType::ShortString: length = readBody<std::uint8_t>(*this); break;
    case VekType::LongString:
      length = readBody<std::uint32_t>(*this);
      if (length > kVekMaxStringSize) {
        throw VekDecodeInvalidValue(format<128>("invalid string size, tag: %d, size: %d",
                                                static_cast<int>(tag), static_cast<int>(length)));
      }
      break;
    default:
      throw VekDecodeMismatch(format<64>("read 'string' type mismatch, tag: %d, get type: %d.",
                                         static_cast<int>(tag), static_cast<int>(head.getType())));
  }
  // No memory is taken for a length that the input cannot back; the read below then reports it.
  if (length <= remaining()) value.resize(length);
  readBuf(value.data(), length);
}

void VekInputStream<BufferReader>::skipField() { skipNext(0); }
void VekInputStream<BufferReader>::skipField(std::uint8_t type) { skipField(type, 0); }
void VekInputStream<BufferReader>::skipToStructEnd() { skipToStructEnd(0); }

void VekInputStream<BufferReader>::skipNext(int depth) {
  DataHead head;
  head.readFrom(*this);
  skipField(head.getType(), depth);
}

void VekInputStream<BufferReader>::skipToStructEnd(int depth) {
  DataHead head;
  do {
    head.readFrom(*this);
    skipField(head.getType(), depth);
  } while (head.getType() != code(VekType::NestedClose));
}

void VekInputStream<BufferReader>::skipField(std::uint8_t type, int depth) {
  const auto kind = static_cast<VekType>(type);
  const bool opens = kind == VekType::Map || kind == VekType::List || kind == VekType::NestedOpen;
  if (opens && depth >= kVekMaxNesting) {
    throw VekDecodeInvalidValue(format<64>("skipField nested deeper than %d.", kVekMaxNesting));
  }
  switch (kind) {
    case VekType::Int8: return skip(1);
    case VekType::Int16: return skip(2);
    case VekType::Int32:
    case VekType::Fixed4: return skip(4);
    case VekType::Int64:
    case VekType::Fixed8: return skip(8);
    case VekType::ShortString: return skip(readBody<std::uint8_t>(*this));
    case VekType::LongString: return skip(readBody<std::uint32_t>(*this));
    case VekType::Map:
    case VekType::List: {
      int count = 0;
      read(count, 0, true);
      std::int64_t fields = count;
      if (kind == VekType::Map) fields *= 2;
      for (; fields > 0; --fields) skipNext(depth + 1);
      return;
    }
    case VekType::NestedOpen: return skipToStructEnd(depth + 1);
    case VekType::NestedClose:
    case VekType::Zero: return;
    case VekType::ByteBlock: {
      DataHead inner;
      inner.readFrom(*this);
      if (inner.getType() != code(VekType::Int8)) {
        throw VekDecodeMismatch(format<64>("skipField with invalid type, type value: %d, %d.",
                                           static_cast<int>(type),
                                           static_cast<int>(inner.getType())));
      }
      int count = 0;
      read(count, 0, true);
      return skip(static_cast<std::size_t>(static_cast<std::int64_t>(count)));
    }
    default:
      throw VekDecodeMismatch(
          format<64>("skipField with invalid type, type value:%d.", static_cast<int>(type)));
  }
}

}  // namespace qel
