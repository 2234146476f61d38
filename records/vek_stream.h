#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "records/vek_exception.h"

/// The tagged binary encoding.
///
/// Every field is a head (tag and type code) followed by a body whose form the type code fixes.
/// All integers and lengths are big-endian. Fields are written in increasing tag order; a reader
/// finds them by tag, skips those it does not know, and accepts narrower integers than it asked
/// for. docs/encoding.md shows the bytes.
///
/// A writer or a reader is used by one thread at a time.
namespace qel {

/// Type codes, the low nibble of a head. Codes 14 and 15 are invalid.
enum class VekType : std::uint8_t {
  Int8 = 0,
  Int16 = 1,
  Int32 = 2,
  Int64 = 3,
  Fixed4 = 4,
  Fixed8 = 5,
  ShortString = 6,
  LongString = 7,
  Map = 8,
  List = 9,
  NestedOpen = 10,
  NestedClose = 11,
  Zero = 12,
  ByteBlock = 13,
};

/// Longest string that the encoding carries, in bytes.
inline constexpr std::uint32_t kVekMaxStringSize = 0x6400000;

/// Deepest nesting of containers and records that a reader follows before it gives up with
/// VekDecodeInvalidValue; every level costs stack, and the input is not trusted.
inline constexpr int kVekMaxNesting = 64;

/// Base of every record that can be encoded; a record provides
/// `writeTo(VekOutputStream<BufferWriter>&) const` and `readFrom(VekInputStream<BufferReader>&)`.
struct VekStructBase {};

/// Growable byte buffer that owns its memory.
class BufferWriter {
 public:
  BufferWriter() = default;
  ~BufferWriter() { delete[] _buffer; }
  BufferWriter(const BufferWriter&) = delete;
  BufferWriter& operator=(const BufferWriter&) = delete;

  /// Ensures room for `size` bytes in all. Growth is to twice the requested size, at least 128.
  void reserve(std::size_t size) {
    if (_capacity < size) grow(size);
  }

  /// Appends `size` bytes.
  void writeBuf(const void* data, std::size_t size);

  /// Start of the bytes written; null before the first.
  const char* getBuffer() const noexcept { return _buffer; }

  /// Bytes written.
  std::size_t getLength() const noexcept { return _length; }

 private:
  void grow(std::size_t size);

  char* _buffer = nullptr;
  std::size_t _length = 0;
  std::size_t _capacity = 0;
};

/// Cursor over bytes that somebody else owns and keeps alive.
class BufferReader {
 public:
  /// Sets the input and moves to its start.
  void setBuffer(const char* data, std::size_t length) noexcept {
    _buffer = data;
    _length = length;
    _position = 0;
  }

  /// Copies `size` bytes that begin `offset` bytes after the position, which stays.
  /// Throws VekDecodeException when they reach beyond the input.
  void peekBuf(void* out, std::size_t size, std::size_t offset) const;

  /// Copies `size` bytes at the position and moves past them. Throws like `peekBuf`.
  void readBuf(void* out, std::size_t size);

  /// Moves the position forwards without checking the input's end; saturates.
  void skip(std::size_t size) noexcept {
    _position = size > SIZE_MAX - _position ? SIZE_MAX : _position + size;
  }

  /// True when the position is at or beyond the input's end.
  bool hasEnd() const noexcept { return _position >= _length; }

  /// Bytes between the position and the input's end, 0 beyond it.
  std::size_t remaining() const noexcept { return hasEnd() ? 0 : _length - _position; }

 private:
  const char* _buffer = nullptr;
  std::size_t _length = 0;
  std::size_t _position = 0;
};

template <class BufferT>
class VekOutputStream;
template <class BufferT>
class VekInputStream;

/// Writes fields. Values narrow to the shortest integer form; zero costs the head only.
template <>
class VekOutputStream<BufferWriter> : public BufferWriter {
 public:
  void write(char value, std::uint8_t tag);
  void write(short value, std::uint8_t tag);
  void write(int value, std::uint8_t tag);
  void write(long value, std::uint8_t tag);
  void write(unsigned int value, std::uint8_t tag);

  /// Throws VekDecodeInvalidValue for more than kVekMaxStringSize bytes; nothing is then written.
  void write(const std::string& value, std::uint8_t tag);
};

/// Reads fields. Every `read` looks forwards for `tag`; when the field is absent, a required read
/// throws VekDecodeRequireNotExist and an optional one leaves `value` untouched.
template <>
class VekInputStream<BufferReader> : public BufferReader {
 public:
  void read(int& value, std::uint8_t tag, bool isRequire);
  void read(long& value, std::uint8_t tag, bool isRequire);
  void read(unsigned int& value, std::uint8_t tag, bool isRequire);
  void read(std::string& value, std::uint8_t tag, bool isRequire);

  /// Moves to the field with `tag`, skipping smaller ones. True when it is there, its head still
  /// unread. Malformed input on the way counts as absent.
  bool skipToTag(std::uint8_t tag);

  /// Reads a head and skips the body behind it.
  void skipField();

  /// Skips the body of a field of `type` whose head has been read.
  void skipField(std::uint8_t type);

  /// Skips fields up to and including the head that closes the current record.
  void skipToStructEnd();

  /// `sizeof(T)` raw bytes at the position, still in network order.
  template <class T>
  T readByType() {
    T value;
    readBuf(&value, sizeof value);
    return value;
  }

 private:
  bool find(std::uint8_t tag, bool isRequire);
  void skipField(std::uint8_t type, int depth);
  void skipNext(int depth);
  void skipToStructEnd(int depth);
};

/// Tag and type of one field.
class DataHead {
 public:
  std::uint8_t getType() const noexcept { return _type; }
  std::uint8_t getTag() const noexcept { return _tag; }

  /// Writes a head: one byte for tags up to 14, two for the others.
  static void writeTo(BufferWriter& out, VekType type, std::uint8_t tag);

  /// Reads the head at the position without consuming it; answers its length, 1 or 2 bytes.
  std::size_t peekFrom(const BufferReader& in);

  /// Reads the head at the position and moves past it.
  void readFrom(BufferReader& in);

 private:
  std::uint8_t _type = 0;
  std::uint8_t _tag = 0;
};

}  // namespace qel
