#include <algorithm>

#include "include/memVector.h"

namespace {

template <class Record>
void encode(const Record& record, MemNode* node) {
  ravel::VekOutputStream<ravel::BufferWriter> out;
  record.writeTo(out);
  node->InnerCopyFrom(out);
}

template <class Record>
void decode(const MemNode& node, Record* record) {
  ravel::VekInputStream<ravel::BufferReader> in;
  node.InnerParseTo(&in);
  record->readFrom(in);
}

}  // namespace

void MemNode::CopyFrom(const ravel::IPAttribute& record) { encode(record, this); }
void MemNode::CopyFrom(const ravel::CodeInfo& record) { encode(record, this); }
void MemNode::ParseTo(ravel::IPAttribute* record) const { decode(*this, record); }
void MemNode::ParseTo(ravel::CodeInfo* record) const { decode(*this, record); }

void MemNode::InnerCopyFrom(const ravel::VekOutputStream<ravel::BufferWriter>& encoded) {
  const std::uint64_t size = encoded.getLength();
  if (!(size < 128u)) {
    qel::assertionFailed("size < 128u", "../include/memVector", __LINE__,
                         "void MemNode::InnerCopyFrom(const VekOutputStream<BufferWriter>&)");
  }
  const std::size_t stored = std::min<std::size_t>(size, kRoom);
  std::memset(m_buffer, 0, sizeof m_buffer);
  std::memcpy(m_buffer, &size, sizeof size);
  if (stored != 0) std::memcpy(m_buffer + sizeof size, encoded.getBuffer(), stored);
}

void MemNode::InnerParseTo(ravel::VekInputStream<ravel::BufferReader>* in) const {
  in->setBuffer(m_buffer + sizeof(std::uint64_t), std::min<std::size_t>(encodedLength(), kRoom));
}
