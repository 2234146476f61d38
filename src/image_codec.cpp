#include "src/image_codec.h"

#include <algorithm>
#include <cstring>

#include "platform/huge_pages.h"
#include "src/range_codec.h"
#include "src/side_task.h"

namespace tolvar {
namespace {

/// From so many records on, a second thread saves more than it costs.
constexpr std::size_t kParallelRecords = std::size_t{1} << 16;

/// So many ranges, in memory that is cheap to fill.
ravel::vIPProperty roomFor(std::size_t count) {
  ravel::vIPProperty ranges;
  ranges.reserve(count);
  qel::wishHugePages(ranges.data(), count * sizeof(ravel::IPProperty));
  ranges.resize(count);
  return ranges;
}

template <class Record, class Node>
void decodeSome(const MemVector<Node>& nodes, std::size_t begin, std::size_t end, Record* records) {
  for (std::size_t i = begin; i < end; ++i) {
    const Node& node = nodes[i];
    if (node.encodedLength() > MemNode::kRoom) {
      throw memVectorException("node " + std::to_string(i) + " claims an encoding of " +
                               std::to_string(node.encodedLength()) + " bytes");
    }
    decodeNode(node, &records[i]);
  }
}

}  // namespace

template <class Range>
void ContentDigest::take(const Range& range) noexcept {
  const GeneralAttribute image(range);
  std::memcpy(_images.data() + _waiting * sizeof image, &image, sizeof image);
  if (++_waiting == kImages) digestImages();
}
template void ContentDigest::take(const ravel::IPAttribute&) noexcept;
template void ContentDigest::take(const ravel::IPProperty&) noexcept;

void ContentDigest::digestImages() noexcept {
  _md5.update(_images.data(), _waiting * sizeof(GeneralAttribute));
  _waiting = 0;
}

std::string ContentDigest::finish() {
  digestImages();
  return _md5.finishHex();
}

std::string contentDigest(std::span<const ravel::IPProperty> ranges) {
  ContentDigest digest;
  for (const ravel::IPProperty& range : ranges) digest.add(range);
  return digest.finish();
}

void sortTable(ravel::vIPProperty* ranges) {
  if (!std::is_sorted(ranges->begin(), ranges->end())) std::sort(ranges->begin(), ranges->end());
}

ravel::vIPProperty decodeTable(const IPVector& nodes) {
  const std::size_t count = nodes.getMaxIndex();
  ravel::vIPProperty ranges = roomFor(count);
  if (count < kParallelRecords) {
    decodeSome(nodes, 0, count, ranges.data());
    return ranges;
  }
  const std::size_t half = count / 2;
  SideTask rest([&] { decodeSome(nodes, half, count, ranges.data()); });
  decodeSome(nodes, 0, half, ranges.data());
  rest.finish();
  return ranges;
}

std::vector<ravel::CodeInfo> decodeCodes(const CodeVector& nodes) {
  std::vector<ravel::CodeInfo> codes(nodes.getMaxIndex());
  decodeSome(nodes, 0, codes.size(), codes.data());
  return codes;
}

void appendNode(const ravel::CodeInfo& record, CodeVector* nodes) {
  ravel::VekOutputStream<ravel::BufferWriter> encoded;
  record.writeTo(encoded);
  if (!MemNode::fits(encoded)) {
    throw memVectorException("the encoding has " + std::to_string(encoded.getLength()) +
                             " bytes, a node holds " + std::to_string(MemNode::kRoom));
  }
  MemNode_CodeInfo node;
  node.InnerCopyFrom(encoded);
  nodes->writeData(node);
}

CodeMap codeMapOf(std::vector<ravel::CodeInfo> codes) {
  CodeMap map;
  map.reserve(codes.size());
  for (ravel::CodeInfo& code : codes)
    map.insert_or_assign(static_cast<std::uint64_t>(code.ID), std::move(code));
  return map;
}

}  // namespace tolvar
