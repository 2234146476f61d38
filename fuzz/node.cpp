// Up to 128 bytes as a node of the shared image, as a range and as a code entry. A node that
// decodes is written and decoded again; one that claims more than it holds must be refused by
// whoever reads tables.

#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz/encoding_of.h"
#include "fuzz/require.h"
#include "src/image_codec.h"
#include "src/range_codec.h"
#include "tests/support/range_records.h"

namespace {

using tolvar_fuzz::encodingOf;

/// A vector of one node, in a block of exactly its size.
template <class Node>
class OneNode {
 public:
  explicit OneNode(const MemNode& content) {
    _vector.create(_block, sizeof _block);
    Node node;
    std::memcpy(node.m_buffer, content.m_buffer, sizeof node.m_buffer);
    _vector.writeData(node);
  }
  const MemVector<Node>& vector() const { return _vector; }

 private:
  alignas(8) char _block[MemVector<Node>::calcMemSize(1)];
  MemVector<Node> _vector;
};

template <class Record>
bool parses(const MemNode& node, Record* record) {
  try {
    node.ParseTo(record);
    return true;
  } catch (const qel::VekDecodeException&) {
    return false;
  }
}

template <class Decode>
bool decodes(Decode decode) {
  try {
    decode();
    return true;
  } catch (const qel::VekDecodeException&) {
    return false;
  } catch (const memVectorException&) {
    return false;
  }
}

template <class Record>
void roundTrip(const MemNode& node, bool* parsed) {
  Record record;
  *parsed = parses(node, &record);
  if (!*parsed) return;
  ravel::VekOutputStream<ravel::BufferWriter> encoded;
  record.writeTo(encoded);
  // A shorter form never needs more room than the one that was read.
  FUZZ_REQUIRE(MemNode::fits(encoded));
  MemNode again;
  again.CopyFrom(record);
  Record same;
  again.ParseTo(&same);
  MemNode third;
  third.CopyFrom(same);
  FUZZ_REQUIRE(std::memcmp(again.m_buffer, third.m_buffer, sizeof again.m_buffer) == 0);
}

std::string encodingOf(const ravel::IPProperty& record) {
  return tolvar_fuzz::encodingOf(tolvar_test::attributeOf(record));
}

/// The short way from a node to a record must come to the same as the long one.
template <class Long, class Short>
void compareDecoders(const MemNode& node) {
  Long expected;
  Short found;
  const bool parsed = parses(node, &expected);
  const bool decoded = decodes([&] { tolvar::decodeNode(node, &found); });
  FUZZ_REQUIRE(decoded == parsed);
  if (parsed) FUZZ_REQUIRE(encodingOf(found) == encodingOf(expected));
}

/// And the short way back, over whatever the slot held.
void compareEncoders(const MemNode& slot) {
  ravel::IPProperty range;
  if (!decodes([&] { tolvar::decodeNode(slot, &range); })) return;
  MemNode expected, written = slot;
  expected.CopyFrom(tolvar_test::attributeOf(range));
  tolvar::encodeRange(range, &written);
  FUZZ_REQUIRE(std::memcmp(written.m_buffer, expected.m_buffer, sizeof written.m_buffer) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  MemNode node;
  if (size != 0) std::memcpy(node.m_buffer, data, std::min(size, sizeof node.m_buffer));
  const bool claimsTooMuch = node.encodedLength() > MemNode::kRoom;
  if (!claimsTooMuch) {
    compareDecoders<ravel::IPAttribute, ravel::IPProperty>(node);
    compareDecoders<ravel::IPAttribute, ravel::IPAttribute>(node);
    compareDecoders<ravel::CodeInfo, ravel::CodeInfo>(node);
    compareEncoders(node);
  }
  bool parsed = false;
  roundTrip<ravel::IPAttribute>(node, &parsed);
  const OneNode<MemNode_IPAttribute> ranges(node);
  FUZZ_REQUIRE(decodes([&] { tolvar::decodeTable(ranges.vector()); }) ==
               (parsed && !claimsTooMuch));
  roundTrip<ravel::CodeInfo>(node, &parsed);
  const OneNode<MemNode_CodeInfo> codes(node);
  FUZZ_REQUIRE(decodes([&] { tolvar::decodeCodes(codes.vector()); }) == (parsed && !claimsTooMuch));
  return 0;
}
