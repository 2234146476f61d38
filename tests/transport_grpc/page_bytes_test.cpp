#include "transport/grpc/page_bytes.h"

#include <gmock/gmock.h>

#include <functional>
#include <random>

#include "tests/transport_grpc/test_tables.h"
#include "tolvar.pb.h"
#include "transport/grpc/message_parser.h"
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

/// By way of the generated parser, where the bytes hold no more than a page may.
std::string parsedOutcome(const std::string& bytes, const PageQuery& query) {
  return outcome([&](ravel::downloadInfo& info) {
    Page message;
    tolvar::wire::parseBounded(bytesOf(bytes).bytes(), message);
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

/// A page as services send it: one time stamp, sequences that mostly count up by one, short values.
/// One in `gap` records breaks the count.
std::string servicePageBytes(std::mt19937_64& random, std::size_t count, std::uint64_t gap,
                             ravel::IPProperty first) {
  std::vector<ravel::IPProperty> ranges;
  for (std::size_t i = 0; i < count; ++i) {
    ravel::IPProperty range = ranges.empty() ? first : ranges.back();
    if (!ranges.empty()) {
      range.sequence += random() % gap == 0 ? 2 + static_cast<std::uint32_t>(random() % 300) : 1;
      range.startIP = range.endIP + 1 + static_cast<std::uint32_t>(random() % 3 * 256);
    }
    range.endIP = range.startIP + static_cast<std::uint32_t>(random() >> (48 + random() % 16));
    range.place = static_cast<std::int64_t>(random() % 240 * 1000000000);
    range.oper = static_cast<std::uint32_t>(random() % 211);
    range.apn = static_cast<std::uint32_t>(random() % 3);
    ranges.push_back(range);
  }
  Page page;
  tolvar::wire::encodePage({cursorOf(ranges.back()) + random() % 3, 0}, ranges, page);
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

TEST(PageBytes, PagesOfServicesAreDecodedDirectlyWhereverTheirCursorsJump) {
  std::mt19937_64 random(17);
  for (int round = 0; round < 60; ++round) {
    ravel::IPProperty first;
    first.timesTamp = round % 2 == 0 ? 0 : 1700000000;
    first.sequence = 2 + static_cast<std::uint32_t>(random() % 3);
    const std::string bytes =
        servicePageBytes(random, 1 + random() % 3000, 1 + 999 * (round % 3), first);
    const PageQuery query{first.timesTamp, static_cast<std::uint32_t>(random() % 2), 50000};
    ASSERT_EQ(plainOutcome(bytes, query), parsedOutcome(bytes, query));
    ASSERT_EQ(parsedOutcome(bytes, query).find("refused"), std::string::npos);
    const std::string changed = mutated(bytes, random);
    ASSERT_EQ(directOutcome(changed, query), parsedOutcome(changed, query));
  }
}

TEST(PageBytes, CountingCursorsAreCheckedLikeAnyOther) {
  std::mt19937_64 random(19);
  ravel::IPProperty first;
  first.timesTamp = 7;
  first.sequence = 100;
  const std::string bytes = servicePageBytes(random, 2000, 1000000, first);
  EXPECT_EQ(plainOutcome(bytes, {7, 99, 50000}), parsedOutcome(bytes, {7, 99, 50000}));
  EXPECT_EQ(plainOutcome(bytes, {7, 100, 50000}), "refused: not plain");
  EXPECT_THAT(directOutcome(bytes, {7, 100, 50000}), testing::HasSubstr("does not follow 7:100"));

  // The count passes 2^32 - 1 in the third block.
  Page page;
  ASSERT_TRUE(page.ParseFromString(bytes));
  page.set_sequence_delta(0, 4294967295 - 1100);
  const std::string wrapping = page.SerializeAsString();
  EXPECT_EQ(plainOutcome(wrapping, {7, 0, 50000}), "refused: not plain");
  EXPECT_THAT(directOutcome(wrapping, {7, 0, 50000}),
              testing::HasSubstr("record 1101: sequence_delta leaves 0 to 4294967295"));

  // Without differences of the times, all but none of the page is a count.
  page.clear_times_tamp_delta();
  page.set_sequence_delta(0, 1);
  const std::string counting = page.SerializeAsString();
  EXPECT_EQ(plainOutcome(counting, {0, 0, 50000}), parsedOutcome(counting, {0, 0, 50000}));
  EXPECT_EQ(plainOutcome(counting, {0, 1, 50000}), "refused: not plain");
}

TEST(PageBytes, TheQueryBehindAPageIsThatOfItsLastRecord) {
  std::mt19937_64 random(23);
  for (int round = 0; round < 200; ++round) {
    ravel::IPProperty first;
    first.timesTamp = 1700000000;
    first.sequence = 5;
    const std::string bytes =
        round % 2 == 0 ? randomPageBytes(random, 1 + random() % 1500)
                       : servicePageBytes(random, 1 + random() % 3000, 1 + round % 9 * 100, first);
    const PageQuery query{0, 0, 50000};
    ravel::downloadInfo info;
    tolvar::wire::decodePage(bytesOf(bytes), query, info);
    const std::uint64_t last = cursorOf(info.IPContent.back());
    const std::uint64_t end = std::uint64_t{info.highMaxIndex} << 32 | info.lowMaxIndex;
    const auto behind = tolvar::wire::queryBehind(bytesOf(bytes), query);
    ASSERT_EQ(behind.has_value(), last < end);
    if (!behind) continue;
    ASSERT_EQ(behind->cursor(), last);
    ASSERT_EQ(behind->size, query.size);
  }
}

TEST(PageBytes, NothingLiesBehindAnEmptyPageOrOneThatCannotBeRight) {
  const auto behind = [](const Page& page) {
    return tolvar::wire::queryBehind(bytesOf(page.SerializeAsString()), {0, 0, 50000});
  };
  Page page;
  page.set_high_max_index(9);
  EXPECT_FALSE(behind(page));
  page.set_records(3);
  page.add_sequence_delta(1);
  page.add_sequence_delta(1);
  EXPECT_FALSE(behind(page));
  page.add_sequence_delta(1);
  EXPECT_TRUE(behind(page));
  page.set_sequence_delta(2, -5);
  EXPECT_FALSE(behind(page));
  page.set_sequence_delta(2, -2);
  EXPECT_FALSE(behind(page));
  page.set_sequence_delta(2, 4294967296);
  EXPECT_FALSE(behind(page));
  EXPECT_FALSE(tolvar::wire::queryBehind(bytesOf("garbage"), {0, 0, 50000}));
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
  EXPECT_EQ(directOutcome("\xff\xff\xff\xff", {0, 0, 10}), "refused: it is not a tolvar.v1.Page");
  EXPECT_EQ(directOutcome(std::string(1000, '\0'), {0, 0, 10}),
            "refused: it is not a tolvar.v1.Page");
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
