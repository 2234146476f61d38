#include "src/image_codec.h"

#include "include/lookup_types.h"

namespace tolvar {
namespace {

template <class Record, class Node>
std::vector<Record> decodeAll(const MemVector<Node>& nodes) {
  const std::size_t count = nodes.getMaxIndex();
  std::vector<Record> records(count);
  for (std::size_t i = 0; i < count; ++i) {
    const Node& node = nodes[i];
    if (node.encodedLength() > MemNode::kRoom) {
      throw memVectorException("node " + std::to_string(i) + " claims an encoding of " +
                               std::to_string(node.encodedLength()) + " bytes");
    }
    node.ParseTo(&records[i]);
  }
  return records;
}

template <class Record, class Node>
void appendEncoded(const Record& record, MemVector<Node>* nodes) {
  ravel::VekOutputStream<ravel::BufferWriter> encoded;
  record.writeTo(encoded);
  if (!MemNode::fits(encoded)) {
    throw memVectorException("the encoding has " + std::to_string(encoded.getLength()) +
                             " bytes, a node holds " + std::to_string(MemNode::kRoom));
  }
  Node node;
  node.InnerCopyFrom(encoded);
  nodes->writeData(node);
}

}  // namespace

void ContentDigest::add(const ravel::IPAttribute& range) noexcept {
  const GeneralAttribute image(range);
  _md5.update(&image, sizeof image);
}

std::string contentDigest(std::span<const ravel::IPAttribute> ranges) {
  ContentDigest digest;
  for (const ravel::IPAttribute& range : ranges) digest.add(range);
  return digest.finish();
}

ravel::IPAttribute toAttribute(const ravel::IPProperty& range) noexcept {
  ravel::IPAttribute attribute;
  attribute.startIP = range.startIP;
  attribute.endIP = range.endIP;
  attribute.place = range.place;
  attribute.extend = range.extend;
  attribute.oper = range.oper;
  attribute.nettype = range.nettype;
  attribute.apn = range.apn;
  attribute.flable = range.flable;
  return attribute;
}

ravel::IPProperty toProperty(const ravel::IPAttribute& range) noexcept {
  ravel::IPProperty property;
  property.startIP = range.startIP;
  property.endIP = range.endIP;
  property.place = range.place;
  property.extend = range.extend;
  property.oper = range.oper;
  property.nettype = range.nettype;
  property.apn = range.apn;
  property.flable = range.flable;
  return property;
}

std::vector<ravel::IPAttribute> decodeRanges(const IPVector& nodes) {
  return decodeAll<ravel::IPAttribute>(nodes);
}

std::vector<ravel::CodeInfo> decodeCodes(const CodeVector& nodes) {
  return decodeAll<ravel::CodeInfo>(nodes);
}

void appendNode(const ravel::IPAttribute& record, IPVector* nodes) { appendEncoded(record, nodes); }
void appendNode(const ravel::CodeInfo& record, CodeVector* nodes) { appendEncoded(record, nodes); }

CodeMap codeMapOf(std::span<const ravel::CodeInfo> codes) {
  CodeMap map;
  map.reserve(codes.size());
  for (const ravel::CodeInfo& code : codes)
    map.insert_or_assign(static_cast<std::uint64_t>(code.ID), code);
  return map;
}

}  // namespace tolvar
