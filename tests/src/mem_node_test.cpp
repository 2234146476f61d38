// Nodes: what a record looks like in its 128 bytes.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "include/memVector.h"
#include "tests/support/raw_image.h"

namespace {

using ravel::BufferWriter;
using ravel::CodeInfo;
using ravel::IPAttribute;
using ravel::VekOutputStream;
using tolvar_test::decodeFields;

/// A name that makes the whole encoding `bytes` long: type and id take one byte each, the name's
/// head and length two.
CodeInfo codeOfEncodedSize(std::size_t bytes) {
  CodeInfo code;
  code.content = std::string(bytes - 4, 'n');
  return code;
}

std::uint64_t lengthWord(const MemNode& node) {
  std::uint64_t word = 0;
  std::memcpy(&word, node.m_buffer, sizeof word);
  return word;
}

/// A node between guard bytes.
struct Guarded {
  char before[64];
  MemNode node;
  char after[64];

  Guarded() {
    std::memset(before, 0x5A, sizeof before);
    std::memset(after, 0x5A, sizeof after);
  }
  bool guardsIntact() const {
    const std::string expected(64, 0x5A);
    return std::string(before, 64) == expected && std::string(after, 64) == expected;
  }
};

TEST(MemNode, IsZeroAfterConstruction) {
  EXPECT_EQ(std::string(MemNode().m_buffer, 128), std::string(128, '\0'));
  EXPECT_EQ(std::string(MemNode_IPAttribute().m_buffer, 128), std::string(128, '\0'));
  EXPECT_EQ(std::string(MemNode_CodeInfo().m_buffer, 128), std::string(128, '\0'));
}

TEST(MemNode, HoldsLengthThenEncodingThenZeros) {
  CodeInfo code;
  code.codeType = 2;
  code.ID = 110000;
  code.content = "abc";
  MemNode node;
  std::memset(node.m_buffer, 0x7F, sizeof node.m_buffer);
  node.CopyFrom(code);
  const std::string encoding(
      "\x00\x02\x12\x00\x01\xAD\xB0\x26\x03"
      "abc",
      12);
  const std::string expected =
      std::string("\x0C\0\0\0\0\0\0\0", 8) + encoding + std::string(108, '\0');
  EXPECT_EQ(std::string(node.m_buffer, 128), expected);
}

TEST(MemNode, RangeComesBackFromItsNode) {
  IPAttribute range;
  range.startIP = 3000000000u;
  range.endIP = 0xFFFFFFFFu;
  range.place = 86110105001;
  range.extend = 1;
  range.oper = 70000;
  range.nettype = 0;
  range.apn = 0x1FF;
  range.flable = 0x80000000u;
  MemNode node;
  node.CopyFrom(range);

  const auto fields =
      decodeFields(reinterpret_cast<const unsigned char*>(node.m_buffer) + 8, lengthWord(node));
  ASSERT_EQ(fields.size(), 8u);
  const std::int64_t expected[8] = {3000000000, 0xFFFFFFFFll, 86110105001, 1, 70000,
                                    0,          0x1FF,        0x80000000ll};
  for (unsigned tag = 0; tag < 8; ++tag) EXPECT_EQ(fields.at(tag).number, expected[tag]) << tag;

  IPAttribute back;
  node.ParseTo(&back);
  EXPECT_EQ(back.startIP, range.startIP);
  EXPECT_EQ(back.endIP, range.endIP);
  EXPECT_EQ(back.place, range.place);
  EXPECT_EQ(back.oper, range.oper);
  EXPECT_EQ(back.apn, range.apn);
  EXPECT_EQ(back.flable, range.flable);
}

TEST(MemNode, WidestRangeFitsItsNode) {
  IPAttribute range;
  range.startIP = range.endIP = range.extend = range.oper = range.nettype = range.apn =
      range.flable = 0xFFFFFFFFu;
  range.place = INT64_MIN;
  MemNode node;
  node.CopyFrom(range);
  EXPECT_EQ(lengthWord(node), 72u);
  IPAttribute back;
  node.ParseTo(&back);
  EXPECT_EQ(back.place, INT64_MIN);
  EXPECT_EQ(back.flable, 0xFFFFFFFFu);
}

TEST(MemNode, EncodingOf120BytesIsHeldWhole) {
  const CodeInfo code = codeOfEncodedSize(120);
  MemNode node;
  node.CopyFrom(code);
  EXPECT_EQ(lengthWord(node), 120u);
  CodeInfo back;
  node.ParseTo(&back);
  EXPECT_EQ(back.content, code.content);
}

TEST(MemNode, EncodingOfExactly127BytesIsAcceptedAndStaysInsideTheNode) {
  for (std::size_t size = 121; size <= 127; ++size) {
    Guarded guarded;
    guarded.node.CopyFrom(codeOfEncodedSize(size));
    EXPECT_EQ(lengthWord(guarded.node), size);
    EXPECT_TRUE(guarded.guardsIntact()) << size;
    CodeInfo back;
    EXPECT_THROW(guarded.node.ParseTo(&back), qel::VekDecodeException) << size;
  }
}

TEST(MemNodeDeathTest, EncodingOf128BytesAborts) {
  MemNode node;
  EXPECT_DEATH(node.CopyFrom(codeOfEncodedSize(128)), "Assertion `size < 128u' failed");
  EXPECT_DEATH(node.CopyFrom(codeOfEncodedSize(200)), "Assertion `size < 128u' failed");
  VekOutputStream<BufferWriter> encoded;
  encoded.writeBuf(std::string(128, 'x').data(), 128);
  EXPECT_DEATH(node.InnerCopyFrom(encoded), "Assertion `size < 128u' failed");
}

TEST(MemNode, FitsTellsWhetherAnEncodingIsHeldWhole) {
  VekOutputStream<BufferWriter> encoded;
  encoded.writeBuf(std::string(120, 'x').data(), 120);
  EXPECT_TRUE(MemNode::fits(encoded));
  encoded.writeBuf("x", 1);
  EXPECT_FALSE(MemNode::fits(encoded));
}

TEST(MemNode, EmptyEncodingMakesAZeroNode) {
  MemNode node;
  std::memset(node.m_buffer, 0x7F, sizeof node.m_buffer);
  node.InnerCopyFrom(VekOutputStream<BufferWriter>());
  EXPECT_EQ(std::string(node.m_buffer, 128), std::string(128, '\0'));
}

TEST(MemNode, NodeWithoutARecordIsRefusedByItsReader) {
  IPAttribute range;
  CodeInfo code;
  EXPECT_THROW(MemNode().ParseTo(&range), qel::VekDecodeRequireNotExist);
  EXPECT_THROW(MemNode().ParseTo(&code), qel::VekDecodeRequireNotExist);
}

TEST(MemNode, LengthWordBeyondTheNodeReadsNothingOutsideIt) {
  // The name claims more bytes than the node has; were the length word believed, they would be
  // found behind it.
  MemNode nodes[2];
  CodeInfo code;
  code.content = std::string(100, 'n');
  nodes[0].CopyFrom(code);
  nodes[0].m_buffer[8 + 3] = static_cast<char>(200);
  for (const std::uint64_t length :
       {std::uint64_t{121}, std::uint64_t{248}, std::uint64_t{1} << 40, UINT64_MAX}) {
    std::memcpy(nodes[0].m_buffer, &length, sizeof length);
    CodeInfo back;
    EXPECT_THROW(nodes[0].ParseTo(&back), qel::VekDecodeException) << length;
  }
}

}  // namespace
