#pragma once

#include <array>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "include/lookup_types.h"
#include "include/memVector.h"
#include "platform/md5.h"
#include "records/records.h"

/// Between records and the node vectors of the shared image. Knows nothing of segments or clients.
namespace tolvar {

/// The content digest of an IP table: MD5 over the 36-byte images of all ranges in table order.
class ContentDigest {
 public:
  void add(const ravel::IPAttribute& range) noexcept { take(range); }
  void add(const ravel::IPProperty& range) noexcept { take(range); }

  /// 32 lower-case hexadecimal digits. The object is then spent.
  std::string finish();

 private:
  template <class Range>
  void take(const Range& range) noexcept;
  void digestImages() noexcept;

  /// Images that wait for the digest, which is faster in whole blocks of its own.
  static constexpr std::size_t kImages = 64;
  std::array<char, kImages * sizeof(GeneralAttribute)> _images;
  std::size_t _waiting = 0;
  qel::ZU_MD5 _md5;
};

std::string contentDigest(std::span<const ravel::IPProperty> ranges);

/// Entries by id; of several with the same id the last one.
using CodeMap = std::unordered_map<std::uint64_t, ravel::CodeInfo>;

/// Puts a table in order; one that is in order already, as the service's are, costs a look.
void sortTable(ravel::vIPProperty* ranges);

/// Every node written, in node order; a large table on two threads. Throws qel::VekDecodeException
/// or memVectorException at the first that is no such record.
ravel::vIPProperty decodeTable(const IPVector& nodes);
std::vector<ravel::CodeInfo> decodeCodes(const CodeVector& nodes);

/// Appends the record as a node. Throws memVectorException, and leaves the vector as it was, when
/// the vector is full or the encoding does not fit a node.
void appendNode(const ravel::CodeInfo& record, CodeVector* nodes);

CodeMap codeMapOf(std::vector<ravel::CodeInfo> codes);

}  // namespace tolvar
