#include "transport/grpc/page_bytes.h"

#include <gmock/gmock.h>

#include <functional>
#include <random>

#include "tests/transport_grpc/test_tables.h"
#include "tolvar.pb.h"
#include "transport/grpc/page_codec.h"
#include "transport/grpc/plain_page.h"

namespace {

using tolvar::v1::Page;
using tolvar::wire::PageBytes;
using tolvar::wire::PageQuery;
using tolvar::wire::WireError;
using tolvar_test::describe;

std::uint64_t cursorOf(const ravel::IPProperty& range) {
  return std::uint64_t{range.timesTamp} << 32 | range.sequence;
}

PageBytes bytesOf(const std::string& text) {
  return PageBytes(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

/// What a decoder made of a page: its content, or the text of its refusal.
std::string outcome(const std::function<void(ravel::downloadInfo&)>& decode) {
  ravel::downloadInfo info;
  try {
    decode(info);
  } catch (const WireError& error) {
    return std::string("refused: ") + error.what();
  }
  std::string text = std::to_string(info.highMaxIndex) + " " + std::to_string(info.lowMaxIndex) +
                     " " + std::to_string(info.isdownloadReset) + "\n";
  for (const ravel::IPProperty& range : info.IPContent) text += describe(range) + "\n";
  return text;
}

/// By way of the generated parser.
std::string parsedOutcome(const std::string& bytes, const PageQuery& query) {
  return outcome([&](ravel::downloadInfo& info) {
    Page message;
    if (!message.ParseFromString(bytes)) throw WireError("it is not a page");
    tolvar::wire::decodePage(message, query, info);
  });
}

std::string directOutcome(const std::string& bytes, const PageQuery& query) {
  return outcome(
      [&](ravel::downloadInfo& info) { tolvar::wire::decodePage(bytesOf(bytes), query, info); });
}

/// The fast form alone: "not plain" where it leaves the page to the other decoder.
std::string plainOutcome(const std::string& bytes, const PageQuery& query) {
  return outcome([&](ravel::downloadInfo& info) {
    if (!tolvar::wire::decodePlainPage(bytesOf(bytes), query, info)) throw WireError("not plain");
  });
}

std::string randomPageBytes(std::mt19937_64& random, std::size_t count) {
  const auto ranges = tolvar_test::randomPage(random, count);
  const std::uint64_t end = ranges.empty() ? 0 : cursorOf(ranges.back()) + random() % 3;
  Page page;
  tolvar::wire::encodePage({end, static_cast<std::int8_t>(random() % 2)}, ranges, page);
  return page.SerializeAsString();
}

std::string mutated(std::string bytes, std::mt19937_64& random) {
  for (std::uint64_t change = 0; change <= random() % 3; ++change) {
    const std::size_t at = random() % bytes.size();
    switch (random() % 6) {
      case 0: bytes.erase(at, 1 + random() % 3); break;
      case 1: bytes.insert(at, 1, static_cast<char>(random())); break;
      case 2: bytes[at] = static_cast<char>(bytes[at] ^ 0x80); break;
      case 3: bytes.resize(at + 1); break;
      default: bytes[at] = static_cast<char>(random());
    }
    if (bytes.empty()) bytes.push_back(0);
  }
  return bytes;
}

TEST(PageBytes, HonestPagesAreDecodedDirectlyAndAsTheParserDoes) {
  std::mt19937_64 random(3);
  for (int round = 0; round < 60; ++round) {
    const std::string bytes = randomPageBytes(random, 1 + random() % 1500);
    const std::string expected = parsedOutcome(bytes, {0, 0, 50000});
    ASSERT_FALSE(expected.starts_with("refused")) << expected;
    ASSERT_EQ(plainOutcome(bytes, {0, 0, 50000}), expected);
    ASSERT_EQ(directOutcome(bytes, {0, 0, 50000}), expected);
  }
}

TEST(PageBytes, ChangedBytesAreJudgedAsTheParserJudgesThem) {
  std::mt19937_64 random(5);
  int refused = 0;
  int plain = 0;
  constexpr int kRounds = 15000;
  for (int round = 0; round < kRounds; ++round) {
    const std::string bytes = mutated(randomPageBytes(random, 1 + random() % 20), random);
    const PageQuery query{0, static_cast<std::uint32_t>(random() % 3), 19};
    const std::string expected = parsedOutcome(bytes, query);
    ASSERT_EQ(directOutcome(bytes, query), expected);
    const std::string fast = plainOutcome(bytes, query);
    if (fast == "refused: not plain") {
      refused += expected.starts_with("refused") ? 1 : 0;
    } else {
      ++plain;
      ASSERT_EQ(fast, expected);
    }
  }
  EXPECT_GT(refused, kRounds / 10);
  EXPECT_GT(plain, kRounds / 50);
}

TEST(PageBytes, EveryTruncationIsJudgedAsTheParserJudgesIt) {
  std::mt19937_64 random(9);
  const std::string whole = randomPageBytes(random, 100);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const std::string bytes = whole.substr(0, size);
    ASSERT_EQ(directOutcome(bytes, {0, 0, 100}), parsedOutcome(bytes, {0, 0, 100})) << size;
  }
}

TEST(PageBytes, OtherFormsOfTheSamePageAreUnderstood) {
  Page page;
  const auto ranges = [] {
    auto some = tolvar_test::makeRanges(3);
    for (std::uint32_t i = 0; i < 3; ++i) some[i].sequence = i + 1;
    return some;
  }();
  tolvar::wire::encodePage({3, 1}, ranges, page);
  const std::string plain = page.SerializeAsString();
  const std::string expected = directOutcome(plain, {0, 0, 3});
  Page extend;
  for (int i = 0; i < 3; ++i) extend.add_extend(0);
  const std::string zeros = extend.SerializeAsString();
  // A column in two runs; an unpacked value between them; unknown fields, one of them a group.
  const std::string split =
      std::string("\x52\x01\x00", 3) + std::string("\x50\x00", 2) + std::string("\x52\x01\x00", 3);
  const std::string unknown =
      "\xa2\x06\x03"
      "new"
      "\xa3\x06\xa4\x06";
  for (const std::string& more : {zeros, split, unknown}) {
    EXPECT_EQ(parsedOutcome(plain + more, {0, 0, 3}), expected);
    EXPECT_EQ(directOutcome(plain + more, {0, 0, 3}), expected);
    EXPECT_EQ(directOutcome(more + plain, {0, 0, 3}), expected);
  }
}

TEST(PageBytes, GarbageIsRefusedWithAReason) {
  EXPECT_EQ(directOutcome("\xff\xff\xff\xff", {0, 0, 10}), "refused: it is not a page");
  EXPECT_EQ(directOutcome(std::string(1000, '\0'), {0, 0, 10}), "refused: it is not a page");
}

TEST(PageBytes, PiecesOfAReceivedMessageAreJoined) {
  std::mt19937_64 random(1);
  const std::string whole = randomPageBytes(random, 500);
  std::vector<grpc::Slice> pieces;
  for (std::size_t at = 0; at < whole.size();) {
    const std::size_t size = std::min<std::size_t>(random() % 90, whole.size() - at);
    pieces.emplace_back(whole.data() + at, size);
    at += size;
  }
  const PageBytes joined(grpc::ByteBuffer(pieces.data(), pieces.size()));
  EXPECT_EQ(std::string(joined.bytes().begin(), joined.bytes().end()), whole);
  EXPECT_TRUE(PageBytes(grpc::ByteBuffer()).bytes().empty());
}

}  // namespace
