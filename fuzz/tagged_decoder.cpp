// Bytes as the fields of a record. What decodes must encode to something that decodes to the same;
// and where the input is nothing but numbers and texts in rising tag order, every read must find
// what a decoder that shares nothing with the library finds.

#include <optional>
#include <set>
#include <stdexcept>
#include <string>

#include "fuzz/encoding_of.h"
#include "fuzz/require.h"
#include "fuzz/tight_bytes.h"
#include "records/records.h"
#include "tests/support/raw_image.h"

namespace {

using tolvar_fuzz::encodingOf;
using tolvar_fuzz::TightBytes;

template <class Record>
void roundTrip(const TightBytes& input) {
  Record record;
  try {
    auto in = input.reader();
    record.readFrom(in);
  } catch (const qel::VekDecodeException&) {
    return;
  }
  const std::string encoding = encodingOf(record);
  const TightBytes again(reinterpret_cast<const std::uint8_t*>(encoding.data()), encoding.size());
  auto in = again.reader();
  Record same;
  same.readFrom(in);
  FUZZ_REQUIRE(in.hasEnd());
  FUZZ_REQUIRE(encodingOf(same) == encoding);
}

/// Reads `tag` as T; nothing when it is absent, mismatched or cut.
template <class T>
std::optional<T> readOne(const TightBytes& input, unsigned tag) {
  auto in = input.reader();
  T value{};
  try {
    in.read(value, static_cast<std::uint8_t>(tag), true);
  } catch (const qel::VekDecodeException&) {
    return std::nullopt;
  }
  return value;
}

void compareWithModel(const TightBytes& input) {
  std::map<unsigned, tolvar_test::RawField> fields;
  try {
    fields = tolvar_test::decodeFields(reinterpret_cast<const unsigned char*>(input.data()),
                                       input.size());
  } catch (const std::runtime_error&) {
    return;
  }
  // Every tag there is, and some that may be absent.
  std::set<unsigned> tags{0, 1, 2, 3, 4, 5, 6, 7, 14, 15, 255};
  for (const auto& [tag, field] : fields) tags.insert(tag);
  for (const unsigned tag : tags) {
    const auto field = fields.find(tag);
    const bool isText = field != fields.end() && field->second.isText;
    const bool isNumber = field != fields.end() && !field->second.isText;
    const auto text = readOne<std::string>(input, tag);
    const auto wide = readOne<long>(input, tag);
    const auto bare = readOne<unsigned int>(input, tag);
    FUZZ_REQUIRE(text.has_value() == isText);
    FUZZ_REQUIRE(wide.has_value() == isNumber);
    FUZZ_REQUIRE(bare.has_value() == isNumber);
    if (isText) FUZZ_REQUIRE(*text == field->second.text);
    if (isNumber) FUZZ_REQUIRE(*wide == field->second.number);
    if (isNumber) FUZZ_REQUIRE(*bare == static_cast<std::uint32_t>(field->second.number));
    const auto narrow = readOne<int>(input, tag);
    if (narrow) FUZZ_REQUIRE(isNumber && *narrow == field->second.number);
  }
}

/// Optional reads leave what they do not find as it was.
void readOptionally(const TightBytes& input) {
  auto in = input.reader();
  for (const unsigned tag : {0u, 2u, 7u, 15u, 255u}) {
    long value = 4711;
    try {
      const bool there = [&] {
        auto ahead = in;
        return ahead.skipToTag(static_cast<std::uint8_t>(tag));
      }();
      in.read(value, static_cast<std::uint8_t>(tag), false);
      if (!there) FUZZ_REQUIRE(value == 4711);
    } catch (const qel::VekDecodeException&) {
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const TightBytes input(data, size);
  roundTrip<ravel::IPAttribute>(input);
  roundTrip<ravel::CodeInfo>(input);
  compareWithModel(input);
  readOptionally(input);
  return 0;
}
