#include "fuzz/make_corpus.h"
#include "tolvar.pb.h"
#include "transport/grpc/page_codec.h"

namespace {

ravel::vIPProperty ranges(std::uint32_t count) {
  ravel::vIPProperty made(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    made[i].timesTamp = 1;
    made[i].sequence = i + 3;
    made[i].startIP = 0x01000000 * (i + 1);
    made[i].endIP = made[i].startIP + 255;
    made[i].place = 840001001001 - i;
    made[i].oper = i;
    made[i].flable = i % 2;
  }
  return made;
}

std::string page(char query, std::uint64_t endIndex, std::int8_t reset,
                 const ravel::vIPProperty& content) {
  tolvar::v1::Page message;
  tolvar::wire::encodePage({endIndex, reset}, content, message);
  return std::string(1, query) + message.SerializeAsString();
}

std::string repeated(const std::string& field, int times) {
  std::string all;
  while (times-- > 0) all += field;
  return all;
}

}  // namespace

void writePageSeeds() {
  using namespace std::string_literals;
  constexpr std::uint64_t kVersion = std::uint64_t{1} << 32;
  writeSeed("grpc_page", "empty", page('\0', 0, 0, {}));
  writeSeed("grpc_page", "reset", page('\0', kVersion + 5, 1, ranges(3)));
  writeSeed("grpc_page", "next", page('\3', kVersion + 99, 0, ranges(8)));
  writeSeed("grpc_page", "two_asked_for", page('\7', kVersion + 99, 0, ranges(2)));
  writeSeed("grpc_page", "too_many", page('\7', kVersion + 99, 0, ranges(3)));
  // Of a number that the contract has not: as many as may be, and one more.
  const std::string known = page('\0', kVersion + 5, 1, ranges(3));
  writeSeed("grpc_page", "unknown_fields", known + repeated("\x7a\x00"s, 1020));
  writeSeed("grpc_page", "too_many_unknown_fields", known + repeated("\x7a\x00"s, 1025));
  writeSeed("grpc_page", "long_tags", known + repeated("\xfa\x80\x80\x80\x10\x00"s, 20));
  writeSeed("grpc_page", "groups", known + "\x7b\x78\x05\x7c"s);
}
