#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// The shared image as bytes. Nothing here uses the library: segments are attached with the
/// operating system's calls, and every offset, number and encoding is taken apart by hand, so that
/// a mistake of the library's writer cannot hide behind the same mistake in its reader.
namespace tolvar_test {

/// One encoded field: an integer or a text.
struct RawField {
  std::int64_t number = 0;
  std::string text;
  bool isText = false;
};

/// Fields by tag. Throws std::runtime_error for bytes that are no sequence of integer and string
/// fields in increasing tag order.
std::map<unsigned, RawField> decodeFields(const unsigned char* bytes, std::size_t size);

struct RawRange {
  std::uint32_t startIP, endIP;
  std::int64_t place;
  std::uint32_t extend, oper, nettype, apn, flable;
  bool operator==(const RawRange&) const = default;
};

struct RawCode {
  std::int64_t codeType, id;
  std::string content;
  bool operator==(const RawCode&) const = default;
};

/// A region as its size word and the four words of its vector head tell it.
struct RawRegion {
  std::size_t offset;  ///< of the size word, in bytes from the segment's start
  std::uint64_t sizeWord;
  std::uint64_t size;
  std::uint64_t capacity;
  std::uint64_t nodeSize;
  std::uint64_t count;

  std::size_t block() const { return offset + 8; }
  std::size_t node(std::size_t index) const { return block() + 32 + index * 128; }
};

/// An attached segment. Reading beyond its end throws std::out_of_range.
class RawSegment {
 public:
  static constexpr int kRegions = 9;

  /// Attaches the segment behind `key`; throws std::runtime_error when there is none.
  explicit RawSegment(key_t key);
  ~RawSegment();
  RawSegment(const RawSegment&) = delete;
  RawSegment& operator=(const RawSegment&) = delete;

  /// Makes a new segment of zeros.
  static void create(key_t key, std::size_t size);
  static bool exists(key_t key);

  /// Identifier of the segment behind the key now, -1 when there is none.
  static int idBehind(key_t key);

  std::size_t size() const { return _size; }
  unsigned mode() const { return _mode; }
  int id() const { return _id; }

  const unsigned char* at(std::size_t offset, std::size_t bytes) const;
  std::uint32_t word32(std::size_t offset) const;
  std::uint64_t word64(std::size_t offset) const;
  std::string bytes(std::size_t offset, std::size_t count) const;
  std::string allBytes() const { return bytes(0, _size); }

  void write(std::size_t offset, const std::string& bytes);
  void write32(std::size_t offset, std::uint32_t word);
  void write64(std::size_t offset, std::uint64_t word);

  /// Data segments: the statuses.
  std::uint32_t ipStatus() const { return word32(0); }
  std::uint32_t codeStatus() const { return word32(4); }

  /// Data segments: region 0 holds the IP table, region 1 + k code table k. Follows the size words.
  std::array<RawRegion, kRegions> regions() const;

  /// Data segments: the nodes of the region, as far as its count says.
  std::vector<RawRange> ranges() const;
  std::vector<RawCode> codes(int table) const;

  /// Size segment: true when all sixteen marks are right; the size behind them.
  bool sizeMarksRight() const;
  std::uint64_t recordedSize() const { return word64(128); }

 private:
  std::map<unsigned, RawField> fieldsOf(const RawRegion& region, std::size_t index) const;

  int _id;
  unsigned _mode = 0;
  unsigned char* _bytes;
  std::size_t _size = 0;
};

}  // namespace tolvar_test
