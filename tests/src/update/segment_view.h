#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tolvar_test {

/// One range and one code entry as they lie in a segment.
struct StoredRange {
  std::uint32_t start, end;
  std::int64_t place;
  std::uint32_t extend, oper, nettype, apn, flable;
};
struct StoredCode {
  std::int64_t type, id;
  std::string name;
};

/// What lies behind a data segment's key, read byte by byte through a read-only mapping of its own.
/// Shares no code with the client. Regions are numbered 0 (ranges) to 8 (code table 7).
class SegmentView {
 public:
  explicit SegmentView(key_t key);
  ~SegmentView();
  SegmentView(const SegmentView&) = delete;
  SegmentView& operator=(const SegmentView&) = delete;

  bool exists() const { return _at != nullptr; }
  std::size_t bytes() const { return _bytes; }
  std::uint32_t ipStatus() const { return status(0); }
  std::uint32_t codeStatus() const { return status(4); }
  std::uint64_t nodes(int region) const { return word(regionOffset(region) + 8 + 24); }
  std::vector<StoredRange> ranges() const;
  std::vector<StoredCode> codes(int table) const;

  /// Everything behind the head that belongs to a region.
  std::string content() const;

 private:
  std::uint32_t status(std::size_t offset) const;
  std::uint64_t word(std::size_t offset) const;
  std::size_t regionOffset(int region) const;
  std::string node(int region, std::size_t index) const;

  const char* _at = nullptr;
  std::size_t _bytes = 0;
};

/// Digest of stored ranges, computed from their 36-byte images written out by hand.
std::string digestOf(const std::vector<StoredRange>& ranges);

}  // namespace tolvar_test
