#pragma once

#include <array>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "include/memVector.h"
#include "platform/md5.h"
#include "records/records.h"

/// Between records and the node vectors of the shared image. Knows nothing of segments or clients.
namespace tolvar {

/// The content digest of an IP table: MD5 over the 36-byte images of all ranges in table order.
class ContentDigest {
 public:
  void add(const ravel::IPAttribute& range) noexcept;

  /// 32 lower-case hexadecimal digits. The object is then spent.
  std::string finish() { return _md5.finishHex(); }

 private:
  qel::ZU_MD5 _md5;
};

std::string contentDigest(std::span<const ravel::IPAttribute> ranges);

ravel::IPAttribute toAttribute(const ravel::IPProperty& range) noexcept;
ravel::IPProperty toProperty(const ravel::IPAttribute& range) noexcept;

/// The decoded content of a data segment.
struct ImageRecords {
  std::vector<ravel::IPAttribute> ranges;
  std::array<std::vector<ravel::CodeInfo>, 8> codes;
};

/// Every node written, in node order. Throws qel::VekDecodeException or memVectorException at the
/// first that is no such record.
std::vector<ravel::IPAttribute> decodeRanges(const IPVector& nodes);
std::vector<ravel::CodeInfo> decodeCodes(const CodeVector& nodes);

/// Appends the record as a node. Throws memVectorException, and leaves the vector as it was, when
/// the vector is full or the encoding does not fit a node.
void appendNode(const ravel::IPAttribute& record, IPVector* nodes);
void appendNode(const ravel::CodeInfo& record, CodeVector* nodes);

/// Entries by id; a later entry with the same id replaces an earlier one.
using CodeMap = std::unordered_map<std::uint64_t, ravel::CodeInfo>;
CodeMap codeMapOf(std::span<const ravel::CodeInfo> codes);

}  // namespace tolvar
