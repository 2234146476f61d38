// The growable buffer and the cursor under the encoding.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "records/vek_stream.h"
#include "tests/records/encoding_support.h"

namespace {

using qel::BufferReader;
using qel::BufferWriter;
using qel::DataHead;
using qel::VekDecodeException;
using qel::VekType;
using namespace tolvar_test;

/// Appends single bytes until the buffer moves; answers the length at which it did. A new array is
/// taken before the old one is freed, so a growth always shows as another address.
std::size_t lengthAtNextGrowth(BufferWriter& writer) {
  const char* const before = writer.getBuffer();
  while (writer.getBuffer() == before) writer.writeBuf("x", 1);
  return writer.getLength();
}

TEST(BufferWriter, IsEmptyAndWithoutMemoryAtFirst) {
  BufferWriter writer;
  EXPECT_EQ(writer.getBuffer(), nullptr);
  EXPECT_EQ(writer.getLength(), 0u);
  writer.writeBuf(nullptr, 0);
  EXPECT_EQ(writer.getBuffer(), nullptr);
}

TEST(BufferWriter, GrowsToTwiceTheRequestedSizeAndAtLeast128) {
  BufferWriter writer;
  writer.writeBuf("x", 1);                      // 2 * 1 is raised to 128
  EXPECT_EQ(lengthAtNextGrowth(writer), 129u);  // 128 was the room; now 2 * 129
  EXPECT_EQ(lengthAtNextGrowth(writer), 259u);  // 258 was the room; now 2 * 259
  EXPECT_EQ(lengthAtNextGrowth(writer), 519u);
}

TEST(BufferWriter, ReservesFromTheRequestNotFromTheOldRoom) {
  BufferWriter small;
  small.reserve(64);
  EXPECT_EQ(lengthAtNextGrowth(small), 129u);
  BufferWriter larger;
  larger.reserve(65);
  EXPECT_EQ(lengthAtNextGrowth(larger), 131u);
  BufferWriter twice;
  twice.reserve(200);  // room for 400
  twice.reserve(401);  // room for 802, not for 800
  EXPECT_EQ(lengthAtNextGrowth(twice), 803u);
}

TEST(BufferWriter, ReserveWithinTheRoomChangesNothing) {
  BufferWriter writer;
  writer.writeBuf("abc", 3);
  const char* const before = writer.getBuffer();
  writer.reserve(0);
  writer.reserve(128);
  EXPECT_EQ(writer.getBuffer(), before);
  EXPECT_EQ(writer.getLength(), 3u);
}

TEST(BufferWriter, KeepsItsBytesThroughGrowth) {
  BufferWriter writer;
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string piece = std::to_string(i);
    writer.writeBuf(piece.data(), piece.size());
    expected += piece;
  }
  EXPECT_EQ(std::string(writer.getBuffer(), writer.getLength()), expected);
}

TEST(BufferReader, PeeksWithoutMoving) {
  TightReader reader("abcdef");
  char out[3] = {};
  reader.peekBuf(out, 3, 2);
  EXPECT_EQ(std::string(out, 3), "cde");
  reader.readBuf(out, 2);
  EXPECT_EQ(std::string(out, 2), "ab");
  reader.peekBuf(out, 3, 1);
  EXPECT_EQ(std::string(out, 3), "def");
}

TEST(BufferReader, RefusesToReachBeyondTheEnd) {
  TightReader reader("abcdef");
  char out[8] = {};
  const char* const text = "buffer overflow when peekBuf, over 6.";
  EXPECT_EQ(textOf<VekDecodeException>([&] { reader.peekBuf(out, 7, 0); }), text);
  EXPECT_EQ(textOf<VekDecodeException>([&] { reader.peekBuf(out, 1, 6); }), text);
  EXPECT_EQ(textOf<VekDecodeException>([&] { reader.readBuf(out, SIZE_MAX); }), text);
  EXPECT_EQ(textOf<VekDecodeException>([&] { reader.peekBuf(out, 1, SIZE_MAX); }), text);
  EXPECT_EQ(textOf<VekDecodeException>([&] { reader.peekBuf(out, SIZE_MAX, SIZE_MAX); }), text);
  EXPECT_EQ(reader.remaining(), 6u) << "a refused read does not move";
  reader.readBuf(out, 4);
  EXPECT_EQ(textOf<VekDecodeException>([&] { reader.readBuf(out, 3); }), text)
      << "the number is the whole input's length";
}

TEST(BufferReader, SkipsBeyondTheEndAndShowsItLater) {
  TightReader reader("abcdef");
  reader.skip(5);
  EXPECT_FALSE(reader.hasEnd());
  reader.skip(100);
  EXPECT_TRUE(reader.hasEnd());
  EXPECT_EQ(reader.remaining(), 0u);
  char out = 0;
  EXPECT_EQ(textOf<VekDecodeException>([&] { reader.readBuf(&out, 1); }),
            "buffer overflow when peekBuf, over 6.");
}

TEST(BufferReader, SkipNeverWrapsAround) {
  TightReader reader("abcdef");
  reader.skip(3);
  reader.skip(SIZE_MAX);
  EXPECT_TRUE(reader.hasEnd());
  reader.skip(SIZE_MAX);
  reader.skip(1);
  EXPECT_TRUE(reader.hasEnd());
}

TEST(BufferReader, SetBufferStartsOver) {
  TightReader reader("abc");
  reader.skip(3);
  EXPECT_TRUE(reader.hasEnd());
  reader.setBuffer("xy", 2);
  EXPECT_EQ(reader.readByType<char>(), 'x');
  reader.setBuffer(nullptr, 0);
  EXPECT_TRUE(reader.hasEnd());
}

TEST(BufferReader, GivesRawBytesByType) {
  TightReader reader(bytes({0x01, 0x02, 0xFF, 0xA1, 0xB2, 0xC3, 0xD4}));
  EXPECT_EQ(reader.readByType<char>(), 1);
  EXPECT_EQ(reader.readByType<unsigned char>(), 2);
  EXPECT_EQ(reader.readByType<unsigned char>(), 255);
  const unsigned int raw = reader.readByType<unsigned int>();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&raw), 4), bytes({0xA1, 0xB2, 0xC3, 0xD4}));
  EXPECT_THROW(reader.readByType<short>(), VekDecodeException);
}

TEST(DataHead, EveryTagAndTypeComesBack) {
  for (int type = 0; type < 14; ++type) {
    for (int tag = 0; tag < 256; ++tag) {
      const std::string wire = written([&](Writer& out) {
        DataHead::writeTo(out, static_cast<VekType>(type), static_cast<std::uint8_t>(tag));
      });
      ASSERT_EQ(wire, reference::head(type, tag));
      TightReader reader(wire);
      DataHead head;
      ASSERT_EQ(head.peekFrom(reader), wire.size());
      ASSERT_FALSE(reader.hasEnd());
      head.readFrom(reader);
      ASSERT_TRUE(reader.hasEnd());
      ASSERT_EQ(head.getType(), type);
      ASSERT_EQ(head.getTag(), tag);
    }
  }
}

TEST(DataHead, ATruncatedHeadIsNoHead) {
  DataHead head;
  TightReader empty("");
  EXPECT_EQ(textOf<VekDecodeException>([&] { head.readFrom(empty); }),
            "buffer overflow when peekBuf, over 0.");
  TightReader half(bytes({0xF0}));
  EXPECT_EQ(textOf<VekDecodeException>([&] { head.readFrom(half); }),
            "buffer overflow when peekBuf, over 1.");
}

}  // namespace
