// Bytes as a sequence of fields to skip. A skipper written down a second time, from the table of
// forms alone, must come to the same position or to the same refusal.

#include <algorithm>
#include <optional>

#include "fuzz/require.h"
#include "fuzz/tight_bytes.h"

namespace {

using tolvar_fuzz::TightBytes;

/// The second skipper: positions in a byte string, no exceptions.
class Model {
 public:
  Model(const TightBytes& input)
      : _bytes(reinterpret_cast<const unsigned char*>(input.data())), _size(input.size()) {}

  std::size_t remaining() const { return _size - _at; }

  /// False where the library throws.
  bool skipField(int depth) {
    unsigned type = 0, tag = 0;
    return head(&type, &tag) && body(type, depth);
  }

  bool toStructEnd(int depth) {
    for (;;) {
      unsigned type = 0, tag = 0;
      if (!head(&type, &tag) || !body(type, depth)) return false;
      if (type == 11) return true;
    }
  }

 private:
  static constexpr int kDeepest = 64;

  /// Positions beyond the end are the end.
  void advance(std::uint64_t count) { _at += std::min<std::uint64_t>(count, _size - _at); }

  bool number(int bytes, std::uint64_t* value) {
    if (remaining() < static_cast<std::size_t>(bytes)) return false;
    for (*value = 0; bytes > 0; --bytes) *value = *value << 8 | _bytes[_at++];
    return true;
  }

  bool head(unsigned* type, unsigned* tag) {
    if (remaining() < 1) return false;
    const unsigned first = _bytes[_at];
    *type = first & 15;
    *tag = first >> 4;
    if (*tag == 15 && remaining() < 2) return false;
    if (*tag == 15) *tag = _bytes[_at + 1];
    _at += first >> 4 == 15 ? 2 : 1;
    return true;
  }

  /// A field with tag 0 that holds an integer of at most 32 bits.
  bool count(std::int64_t* value) {
    unsigned type = 0, tag = 0;
    std::uint64_t raw = 0;
    if (!head(&type, &tag) || tag != 0) return false;
    *value = 0;
    if (type == 12) return true;
    if (type > 2 || !number(1 << type, &raw)) return false;
    *value = type == 0   ? static_cast<std::int8_t>(raw)
             : type == 1 ? static_cast<std::int16_t>(raw)
                         : static_cast<std::int32_t>(raw);
    return true;
  }

  bool elements(std::int64_t perCount, int depth) {
    std::int64_t n = 0;
    if (!count(&n)) return false;
    for (n *= perCount; n > 0; --n)
      if (!skipField(depth + 1)) return false;
    return true;
  }

  bool block() {
    unsigned type = 0, tag = 0;
    std::int64_t n = 0;
    if (!head(&type, &tag) || type != 0 || !count(&n)) return false;
    advance(static_cast<std::uint64_t>(n));  // a negative count is huge
    return true;
  }

  bool text(int lengthBytes) {
    std::uint64_t length = 0;
    if (!number(lengthBytes, &length)) return false;
    advance(length);
    return true;
  }

  bool body(unsigned type, int depth) {
    const bool opens = type == 8 || type == 9 || type == 10;
    if (opens && depth >= kDeepest) return false;
    switch (type) {
      case 0: advance(1); return true;
      case 1: advance(2); return true;
      case 2:
      case 4: advance(4); return true;
      case 3:
      case 5: advance(8); return true;
      case 6: return text(1);
      case 7: return text(4);
      case 8: return elements(2, depth);
      case 9: return elements(1, depth);
      case 10: return toStructEnd(depth + 1);
      case 11:
      case 12: return true;
      case 13: return block();
      default: return false;
    }
  }

  const unsigned char* _bytes;
  std::size_t _size;
  std::size_t _at = 0;
};

/// Runs `act`; false when it throws what the encoding throws.
template <class Act>
bool succeeds(Act act) {
  try {
    act();
    return true;
  } catch (const qel::VekDecodeException&) {
    return false;
  }
}

void skipAll(const TightBytes& input) {
  auto in = input.reader();
  Model model(input);
  while (!in.hasEnd()) {
    const bool skipped = succeeds([&] { in.skipField(); });
    FUZZ_REQUIRE(skipped == model.skipField(0));
    if (!skipped) return;
    FUZZ_REQUIRE(in.remaining() == model.remaining());
  }
}

void skipStruct(const TightBytes& input) {
  auto in = input.reader();
  Model model(input);
  const bool skipped = succeeds([&] { in.skipToStructEnd(); });
  FUZZ_REQUIRE(skipped == model.toStructEnd(0));
  if (skipped) FUZZ_REQUIRE(in.remaining() == model.remaining());
}

/// Looking for a field never throws, never goes back, and leaves the head of what it found.
void seekAll(const TightBytes& input) {
  auto in = input.reader();
  for (const unsigned tag : {0u, 1u, 2u, 3u, 7u, 14u, 15u, 16u, 200u, 255u}) {
    const std::size_t before = in.remaining();
    const bool found = in.skipToTag(static_cast<std::uint8_t>(tag));
    FUZZ_REQUIRE(in.remaining() <= before);
    if (!found) continue;
    qel::DataHead head;
    head.peekFrom(in);
    FUZZ_REQUIRE(head.getTag() == tag);
    FUZZ_REQUIRE(in.skipToTag(static_cast<std::uint8_t>(tag)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const TightBytes input(data, size);
  skipAll(input);
  skipStruct(input);
  seekAll(input);
  return 0;
}
