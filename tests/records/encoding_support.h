#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <typeinfo>

#include "records/vek_stream.h"

namespace tolvar_test {

using Writer = qel::VekOutputStream<qel::BufferWriter>;
using Reader = qel::VekInputStream<qel::BufferReader>;

inline std::string bytes(std::initializer_list<int> values) {
  std::string result;
  for (const int value : values) result += static_cast<char>(value);
  return result;
}

/// The bytes that `write(Writer&)` produces.
template <class Write>
std::string written(Write write) {
  Writer out;
  write(out);
  return std::string(out.getLength() == 0 ? "" : out.getBuffer(), out.getLength());
}

template <class Record>
std::string encoded(const Record& record) {
  return written([&](Writer& out) { record.writeTo(out); });
}

/// A reader over a copy of `content` that ends where its heap block ends: the address sanitizer
/// sees every byte read beyond it.
class TightReader : public Reader {
 public:
  explicit TightReader(const std::string& content) : _block(new char[content.size()]) {
    if (!content.empty()) content.copy(_block.get(), content.size());
    setBuffer(_block.get(), content.size());
  }

 private:
  std::unique_ptr<char[]> _block;
};

/// Text of the exception that `act()` throws, which must be of exactly the type `Expected`.
template <class Expected, class Act>
std::string textOf(Act act) {
  try {
    act();
  } catch (const Expected& caught) {
    EXPECT_EQ(typeid(caught), typeid(Expected));
    return caught.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

/// The encoding written down a second time, sharing nothing with the writer under test.
namespace reference {

inline std::string head(int type, int tag) {
  if (tag <= 14) return bytes({tag * 16 + type});
  return bytes({240 + type, tag});
}

inline std::string bigEndian(std::uint64_t value, int size) {
  std::string result(static_cast<std::size_t>(size), '\0');
  for (int i = size - 1; i >= 0; --i, value /= 256)
    result[static_cast<std::size_t>(i)] = static_cast<char>(value % 256);
  return result;
}

inline std::string integer(std::int64_t value, int tag) {
  const auto fits = [value](std::int64_t limit) { return value >= -limit && value < limit; };
  const auto body = static_cast<std::uint64_t>(value);
  if (value == 0) return head(12, tag);
  if (fits(std::int64_t{1} << 7)) return head(0, tag) + bigEndian(body, 1);
  if (fits(std::int64_t{1} << 15)) return head(1, tag) + bigEndian(body, 2);
  if (fits(std::int64_t{1} << 31)) return head(2, tag) + bigEndian(body, 4);
  return head(3, tag) + bigEndian(body, 8);
}

inline std::string text(const std::string& value, int tag) {
  if (value.size() < 256) return head(6, tag) + bigEndian(value.size(), 1) + value;
  return head(7, tag) + bigEndian(value.size(), 4) + value;
}

}  // namespace reference
}  // namespace tolvar_test
