// The vector of nodes in a block of memory.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "include/memVector.h"

namespace {

/// Memory that begins as garbage, with room for a node more behind it.
class Block {
 public:
  explicit Block(std::size_t bytes) : _words((bytes + 7) / 8 + 16, 0xA5A5A5A5A5A5A5A5u) {}
  char* data() { return reinterpret_cast<char*>(_words.data()); }
  std::uint64_t word(std::size_t offset) {
    std::uint64_t value = 0;
    std::memcpy(&value, data() + offset, sizeof value);
    return value;
  }

 private:
  std::vector<std::uint64_t> _words;
};

MemNode_CodeInfo node(std::int64_t id) {
  ravel::CodeInfo code;
  code.codeType = 1;
  code.ID = id;
  code.content = "name of " + std::to_string(id);
  MemNode_CodeInfo made;
  made.CopyFrom(code);
  return made;
}

std::int64_t idIn(const MemNode& node) {
  ravel::CodeInfo code;
  node.ParseTo(&code);
  return code.ID;
}

bool isZero(const MemNode& node) {
  return std::all_of(node.m_buffer, node.m_buffer + 128, [](char c) { return c == 0; });
}

template <class Call>
std::string vectorException(Call call) {
  try {
    call();
  } catch (const memVectorException& caught) {
    return caught.what();
  }
  return "(no exception)";
}

TEST(MemVector, BlockWithoutNodesIs32BytesAndTakesNone) {
  EXPECT_EQ(CodeVector::calcMemSize(0), 32u);
  EXPECT_EQ(CodeVector::calcMemSize(3), 32u + 3 * 128);
  Block block(32);
  CodeVector vector;
  vector.create(block.data(), 32);
  EXPECT_EQ(vector.size(), 0u);
  EXPECT_EQ(vectorException([&] { vector.writeData(node(1)); }),
            "[MemVector::get] index beyond : index = 0 > 0");
  EXPECT_EQ(vector.getMaxIndex(), 0u);
}

TEST(MemVector, OddBytesBehindTheLastNodeAreUnused) {
  Block block(32 + 128 * 3 + 100);
  CodeVector vector;
  vector.create(block.data(), 32 + 128 * 3 + 100);
  EXPECT_EQ(vector.size(), 3u);
  EXPECT_EQ(vector.getMemSize(), 32u + 128 * 3 + 100);
  EXPECT_EQ(block.word(0), 32u + 128 * 3 + 100);
  EXPECT_EQ(block.word(8), 3u);
  EXPECT_EQ(block.word(16), 128u);
  EXPECT_EQ(block.word(24), 0u);
  EXPECT_EQ(std::string(block.data() + 32, 128 * 3 + 100), std::string(128 * 3 + 100, '\0'));
}

TEST(MemVector, ThreeWritesThenReadsUpToTheCapacity) {
  const std::size_t size = CodeVector::calcMemSize(5);
  Block block(size);
  CodeVector vector;
  vector.create(block.data(), size);
  for (std::int64_t id = 1; id <= 3; ++id) vector.writeData(node(id));
  EXPECT_EQ(vector.getMaxIndex(), 3u);
  EXPECT_EQ(idIn(vector[2]), 3);
  EXPECT_TRUE(isZero(vector[3]));
  EXPECT_EQ(vectorException([&] { vector[5]; }), "[MemVector::get] index beyond : index = 5 > 5");
  EXPECT_EQ(std::string(block.data() + 32 + 2 * 128, 128), std::string(node(3).m_buffer, 128));
}

TEST(MemVector, FullVectorRefusesTheNextNodeAndKeepsItsCount) {
  const std::size_t size = CodeVector::calcMemSize(2);
  Block block(size);
  CodeVector vector;
  vector.create(block.data(), size);
  vector.writeData(node(1));
  vector.writeData(node(2));
  EXPECT_EQ(vectorException([&] { vector.writeData(node(3)); }),
            "[MemVector::get] index beyond : index = 2 > 2");
  EXPECT_EQ(vector.getMaxIndex(), 2u);
  EXPECT_EQ(block.word(size), 0xA5A5A5A5A5A5A5A5u) << "written behind the block";
}

TEST(MemVector, ConnectTakesCreatedBlocksOnlyAndKeepsTheirCount) {
  const std::size_t size = CodeVector::calcMemSize(4);
  Block block(size);
  std::memset(block.data(), 0, size);
  CodeVector vector;
  EXPECT_FALSE(vector.connect(block.data()));

  CodeVector writer;
  writer.create(block.data(), size);
  writer.writeData(node(7));
  CodeVector reader;
  EXPECT_TRUE(reader.connect(block.data()));
  EXPECT_EQ(reader.getMaxIndex(), 1u);
  EXPECT_EQ(idIn(reader[0]), 7);
}

TEST(MemVector, ConnectLooksAtTheMarkOnlyAndChangesNothing) {
  const std::size_t size = CodeVector::calcMemSize(1);
  Block block(size);
  const std::uint64_t head[4] = {1, 2, 128, 3};
  std::memcpy(block.data(), head, sizeof head);
  const std::string before(block.data(), size);
  CodeVector vector;
  EXPECT_TRUE(vector.connect(block.data()));
  EXPECT_EQ(std::string(block.data(), size), before);
}

TEST(MemVector, ResetToALargerSizeKeepsFiveNodesAndRaisesTheCapacity) {
  const std::size_t larger = CodeVector::calcMemSize(9);
  Block block(larger);
  CodeVector vector;
  vector.create(block.data(), CodeVector::calcMemSize(5));
  for (std::int64_t id = 1; id <= 5; ++id) vector.writeData(node(id));

  CodeVector grown;
  grown.reset(block.data(), larger);
  EXPECT_EQ(grown.getMaxIndex(), 5u);
  EXPECT_EQ(grown.size(), 9u);
  EXPECT_EQ(grown.getMemSize(), larger);
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(idIn(grown[i]), static_cast<std::int64_t>(i + 1));
  grown.writeData(node(6));
  EXPECT_EQ(idIn(grown[5]), 6);
}

TEST(MemVector, ClearKeepsCapacityAndSizeAndZeroesEverySlot) {
  const std::size_t size = CodeVector::calcMemSize(4) + 50;
  Block block(size);
  CodeVector vector;
  vector.create(block.data(), size);
  for (std::int64_t id = 1; id <= 3; ++id) vector.writeData(node(id));
  std::memset(block.data() + 32 + 3 * 128, 0x33, 128);  // never counted, as after a growth
  std::memset(block.data() + 32 + 4 * 128, 0x44, 50);   // behind the last slot
  vector.clear();
  EXPECT_EQ(vector.getMaxIndex(), 0u);
  EXPECT_EQ(vector.size(), 4u);
  EXPECT_EQ(vector.getMemSize(), size);
  EXPECT_EQ(vector.desc()._iBlockSize, 128u);
  for (std::size_t i = 0; i < 4; ++i) EXPECT_TRUE(isZero(vector[i])) << i;
  EXPECT_EQ(block.data()[32 + 4 * 128], 0x44);
}

TEST(MemVectorDeathTest, ClearOfAnUnaimedHandleAborts) {
  EXPECT_DEATH(IPVector().clear(),
               "\\.\\./include/memVector:[0-9]+: void MemVector<T>::clear\\(\\) \\[with T = "
               "MemNode_IPAttribute\\]: Assertion `_pHead' failed");
  EXPECT_DEATH(CodeVector().clear(),
               "\\.\\./include/memVector:[0-9]+: void MemVector<T>::clear\\(\\) \\[with T = "
               "MemNode_CodeInfo\\]: Assertion `_pHead' failed");
}

TEST(MemVector, InitAimsWithoutTouchingTheBlock) {
  Block block(256);
  const std::string before(block.data(), 256);
  CodeVector vector;
  vector.init(block.data());
  EXPECT_EQ(vector.getAddr(), block.data());
  EXPECT_EQ(vector.getDataAddr(), block.data() + 32);
  EXPECT_EQ(std::string(block.data(), 256), before);
}

TEST(MemVectorException, CarriesItsMessage) {
  EXPECT_STREQ(memVectorException("full").what(), "full");
  EXPECT_STREQ(memVectorException("full", 28).what(), "full");
  EXPECT_THROW(throw memVectorException("full"), qel::ZU_Exception);
}

}  // namespace
