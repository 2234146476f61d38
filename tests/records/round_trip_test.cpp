// Random records and random fields against the encoding written down a second time.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "records/records.h"
#include "tests/records/encoding_support.h"

namespace {

using ravel::CodeInfo;
using ravel::IPAttribute;
using namespace tolvar_test;

/// Random values that visit every width and its borders.
class RandomValues {
 public:
  std::int64_t integer() {
    const int bits = static_cast<int>(_random() % 64);
    const auto value = static_cast<std::int64_t>(_random() >> (63 - bits));
    switch (_random() % 6) {
      case 0: return 0;
      case 1: return (std::int64_t{1} << (bits % 63)) - 1;
      case 2: return -(std::int64_t{1} << (bits % 63));
      case 3: return -value;
      default: return value;
    }
  }

  std::uint32_t address() { return static_cast<std::uint32_t>(integer()); }

  std::string text() {
    std::string result(_random() % 2 == 0 ? _random() % 8 : _random() % 600, '\0');
    for (char& byte : result) byte = static_cast<char>(_random());
    return result;
  }

  std::uint64_t below(std::uint64_t limit) { return _random() % limit; }

 private:
  std::mt19937_64 _random{20120704};
};

TEST(RoundTrip, RandomRanges) {
  RandomValues random;
  for (int round = 0; round < 20000; ++round) {
    IPAttribute range;
    std::uint32_t* const words[] = {&range.startIP, &range.endIP, &range.extend, &range.oper,
                                    &range.nettype, &range.apn,   &range.flable};
    for (std::uint32_t* word : words) *word = random.address();
    range.place = random.integer();

    const std::string wire = encoded(range);
    ASSERT_EQ(wire, reference::integer(range.startIP, 0) + reference::integer(range.endIP, 1) +
                        reference::integer(range.place, 2) + reference::integer(range.extend, 3) +
                        reference::integer(range.oper, 4) + reference::integer(range.nettype, 5) +
                        reference::integer(range.apn, 6) + reference::integer(range.flable, 7));
    ASSERT_LE(wire.size(), 120u) << "a node of shared memory has no more room";

    IPAttribute back;
    TightReader reader(wire);
    back.readFrom(reader);
    ASSERT_TRUE(reader.hasEnd());
    ASSERT_EQ(back.startIP, range.startIP);
    ASSERT_EQ(back.endIP, range.endIP);
    ASSERT_EQ(back.place, range.place);
    ASSERT_EQ(back.extend, range.extend);
    ASSERT_EQ(back.oper, range.oper);
    ASSERT_EQ(back.nettype, range.nettype);
    ASSERT_EQ(back.apn, range.apn);
    ASSERT_EQ(back.flable, range.flable);
  }
}

TEST(RoundTrip, RandomCodes) {
  RandomValues random;
  for (int round = 0; round < 5000; ++round) {
    CodeInfo code;
    code.codeType = static_cast<std::int32_t>(random.integer());
    code.ID = random.integer();
    code.content = random.text();

    const std::string wire = encoded(code);
    ASSERT_EQ(wire, reference::integer(code.codeType, 0) + reference::integer(code.ID, 1) +
                        reference::text(code.content, 2));
    CodeInfo back;
    TightReader reader(wire);
    back.readFrom(reader);
    ASSERT_TRUE(reader.hasEnd());
    ASSERT_EQ(back.codeType, code.codeType);
    ASSERT_EQ(back.ID, code.ID);
    ASSERT_EQ(back.content, code.content);
  }
}

using Value = std::variant<std::int64_t, std::string>;

struct Field {
  std::uint8_t tag;
  Value value;
};

/// Fields with rising tags, some of them of kinds that a reader only skips.
std::vector<Field> randomFields(RandomValues& random, std::string& wire) {
  std::vector<Field> fields;
  for (std::uint64_t tag = random.below(4); tag < 256; tag += 1 + random.below(40)) {
    const int number = static_cast<int>(tag);
    switch (random.below(4)) {
      case 0:
        wire += reference::head(9, number) + reference::integer(2, 0) +
                reference::text(random.text(), 0) + reference::integer(random.integer(), 0);
        continue;
      case 1:
        fields.push_back({static_cast<std::uint8_t>(tag), random.text()});
        wire += reference::text(std::get<std::string>(fields.back().value), number);
        continue;
      default:
        fields.push_back({static_cast<std::uint8_t>(tag), random.integer()});
        wire += reference::integer(std::get<std::int64_t>(fields.back().value), number);
    }
  }
  return fields;
}

TEST(RoundTrip, AnySelectionOfFieldsIsFoundAmongOthers) {
  RandomValues random;
  for (int round = 0; round < 5000; ++round) {
    std::string wire;
    const std::vector<Field> fields = randomFields(random, wire);
    TightReader reader(wire);
    for (const Field& field : fields) {
      if (random.below(2) == 0) continue;
      if (const auto* text = std::get_if<std::string>(&field.value)) {
        std::string found;
        reader.read(found, field.tag, true);
        ASSERT_EQ(found, *text);
        continue;
      }
      const auto number = std::get<std::int64_t>(field.value);
      if (number >= INT32_MIN && number <= INT32_MAX && random.below(2) == 0) {
        int found = 0;
        reader.read(found, field.tag, true);
        ASSERT_EQ(found, number);
      } else {
        long found = 0;
        reader.read(found, field.tag, true);
        ASSERT_EQ(found, number);
      }
    }
  }
}

}  // namespace
