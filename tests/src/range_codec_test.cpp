// The direct encoder and decoder against the records' own, which go through a stream.
#include "src/range_codec.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "src/image_codec.h"
#include "tests/support/range_records.h"

namespace {

using ravel::CodeInfo;
using ravel::IPAttribute;
using ravel::IPProperty;

/// Numbers around every width that a field may have, and any others.
class Numbers {
 public:
  std::int64_t next() {
    const unsigned bits = static_cast<unsigned>(_random() % 65);
    const std::uint64_t edge = bits == 64 ? 0 : std::uint64_t{1} << bits;
    switch (_random() % 4) {
      case 0: return static_cast<std::int64_t>(edge + _random() % 5 - 2);
      case 1: return static_cast<std::int64_t>(0 - edge + _random() % 5 - 2);
      case 2: return static_cast<std::int64_t>(_random() >> (_random() % 64));
      default: return 0;
    }
  }
  std::uint32_t word() { return static_cast<std::uint32_t>(next()); }
  std::uint64_t any() { return _random(); }

 private:
  std::mt19937_64 _random{20120704};
};

IPProperty randomRange(Numbers& numbers) {
  IPProperty range;
  range.startIP = numbers.word();
  range.endIP = numbers.word();
  range.place = numbers.next();
  range.extend = numbers.word();
  range.oper = numbers.word();
  range.nettype = numbers.word();
  range.apn = numbers.word();
  range.flable = numbers.word();
  return range;
}

bool same(const IPAttribute& a, const IPAttribute& b) {
  return a.startIP == b.startIP && a.endIP == b.endIP && a.place == b.place &&
         a.extend == b.extend && a.oper == b.oper && a.nettype == b.nettype && a.apn == b.apn &&
         a.flable == b.flable;
}

bool same(const CodeInfo& a, const CodeInfo& b) {
  return a.codeType == b.codeType && a.ID == b.ID && a.content == b.content;
}

/// What becomes of a node: a record, or the text of an exception.
template <class Record, class Read>
std::string outcome(const MemNode& node, Record* record, Read read) {
  try {
    read(node, record);
    return "";
  } catch (const std::exception& error) {
    return error.what();
  }
}

template <class Record>
void expectSameReading(const MemNode& node) {
  Record direct, streamed;
  const std::string failure =
      outcome(node, &direct, [](const MemNode& n, Record* r) { tolvar::decodeNode(n, r); });
  const std::string expected =
      outcome(node, &streamed, [](const MemNode& n, Record* r) { n.ParseTo(r); });
  ASSERT_EQ(failure, expected);
  if (failure.empty()) {
    ASSERT_TRUE(same(direct, streamed));
  }
}

TEST(RangeCodec, WritesTheBytesThatTheStreamWrites) {
  Numbers numbers;
  for (int i = 0; i < 200000; ++i) {
    const IPProperty range = randomRange(numbers);
    MemNode streamed, direct;
    std::memset(direct.m_buffer, 0x5a, sizeof direct.m_buffer);
    streamed.CopyFrom(tolvar_test::attributeOf(range));
    tolvar::encodeRange(range, &direct);
    ASSERT_EQ(std::memcmp(streamed.m_buffer, direct.m_buffer, sizeof direct.m_buffer), 0);
  }
}

TEST(RangeCodec, ReadsWhatItWrites) {
  Numbers numbers;
  for (int i = 0; i < 200000; ++i) {
    const IPProperty range = randomRange(numbers);
    MemNode node;
    tolvar::encodeRange(range, &node);
    IPProperty back;
    back.timesTamp = 7;
    back.sequence = 8;
    tolvar::decodeNode(node, &back);
    ASSERT_TRUE(same(tolvar_test::attributeOf(back), tolvar_test::attributeOf(range)));
    ASSERT_EQ(back.timesTamp, 7u);
    ASSERT_EQ(back.sequence, 8u);
  }
}

TEST(RangeCodec, ReadsANodeOfAnyBytesAsTheStreamDoes) {
  Numbers numbers;
  for (int i = 0; i < 200000; ++i) {
    MemNode node;
    tolvar::encodeRange(randomRange(numbers), &node);
    for (std::uint64_t changes = numbers.any() % 4; changes > 0; --changes)
      node.m_buffer[8 + numbers.any() % 100] = static_cast<char>(numbers.any());
    if (numbers.any() % 4 == 0) node.m_buffer[0] = static_cast<char>(numbers.any() % 121);
    expectSameReading<IPAttribute>(node);
    expectSameReading<CodeInfo>(node);
  }
}

TEST(RangeCodec, ReadsNamesOfEveryLengthAndDamagedOnesAsTheStreamDoes) {
  Numbers numbers;
  for (int i = 0; i < 200000; ++i) {
    CodeInfo code;
    code.codeType = static_cast<std::int32_t>(numbers.next());
    code.ID = numbers.next();
    code.content.assign(numbers.any() % 105, 'n');
    MemNode node;
    node.CopyFrom(code);
    expectSameReading<CodeInfo>(node);
    node.m_buffer[8 + numbers.any() % 20] = static_cast<char>(numbers.any());
    node.m_buffer[0] = static_cast<char>(numbers.any() % 121);
    expectSameReading<CodeInfo>(node);
  }
}

/// Fields that a newer writer might add, and heads of two bytes, take the long way.
TEST(RangeCodec, SkipsFieldsThatItDoesNotKnow) {
  ravel::VekOutputStream<ravel::BufferWriter> out;
  IPAttribute range;
  range.startIP = 5;
  range.place = 86001002003;
  range.writeTo(out);
  out.write(std::string("new"), 9);
  out.write(77, 40);
  MemNode node;
  node.InnerCopyFrom(out);
  IPAttribute back;
  tolvar::decodeNode(node, &back);
  EXPECT_TRUE(same(back, range));
}

TEST(ContentDigestOfImages, IsThatOfOneStringWhateverTheirNumber) {
  Numbers numbers;
  for (const std::size_t count : {0u, 1u, 63u, 64u, 65u, 128u, 1000u}) {
    std::vector<IPProperty> ranges;
    for (std::size_t i = 0; i < count; ++i) ranges.push_back(randomRange(numbers));
    EXPECT_EQ(tolvar::contentDigest(ranges), tolvar_test::digestOf(ranges)) << count;
  }
}

/// A table large enough to be decoded on two threads.
class LargeTable : public testing::Test {
 protected:
  static constexpr std::uint32_t kRanges = 70001;

  LargeTable() : _block(IPVector::calcMemSize(kRanges)) {
    _nodes.create(_block.data(), _block.size());
    for (std::uint32_t i = 0; i < kRanges; ++i) {
      IPAttribute range;
      range.startIP = range.endIP = i;
      range.oper = i % 97;
      tolvar_test::appendNode(range, &_nodes);
    }
  }

  /// Damages the length word of a node; the message that decoding fails with.
  std::string messageOf(std::uint32_t node) {
    const std::uint64_t length = 500;
    auto* const word = const_cast<char*>(_nodes[node].m_buffer);
    std::uint64_t before;
    std::memcpy(&before, word, sizeof before);
    std::memcpy(word, &length, sizeof length);
    std::string message;
    try {
      tolvar::decodeTable(_nodes);
    } catch (const memVectorException& error) {
      message = error.what();
    }
    std::memcpy(word, &before, sizeof before);
    return message;
  }

  std::vector<char> _block;
  IPVector _nodes;
};

TEST_F(LargeTable, IsDecodedWholeAndInOrder) {
  const ravel::vIPProperty table = tolvar::decodeTable(_nodes);
  ASSERT_EQ(table.size(), kRanges);
  for (std::uint32_t i = 0; i < kRanges; ++i) {
    ASSERT_EQ(table[i].startIP, i);
    ASSERT_EQ(table[i].oper, i % 97);
  }
}

TEST_F(LargeTable, ADamagedNodeIsNamedWhereverItIs) {
  for (const std::uint32_t node : {0u, kRanges / 2 - 1, kRanges / 2, kRanges - 1}) {
    const std::string message = messageOf(node);
    EXPECT_NE(message.find("node " + std::to_string(node) + " claims"), std::string::npos)
        << message;
  }
}

}  // namespace
