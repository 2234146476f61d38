#include "tools/tolvar/address_class.h"

namespace tolvar::tools {
namespace {

struct Block {
  std::uint32_t network;
  int bits;
  const char* kind;
};

constexpr std::uint32_t quad(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

// RFC 6890 and its updates; narrower blocks first.
constexpr Block kBlocks[] = {
    {quad(255, 255, 255, 255), 32, "the limited broadcast address"},
    {quad(192, 0, 2, 0), 24, "a documentation address (RFC 5737)"},
    {quad(198, 51, 100, 0), 24, "a documentation address (RFC 5737)"},
    {quad(203, 0, 113, 0), 24, "a documentation address (RFC 5737)"},
    {quad(192, 168, 0, 0), 16, "a private address (RFC 1918)"},
    {quad(169, 254, 0, 0), 16, "a link-local address (RFC 3927)"},
    {quad(198, 18, 0, 0), 15, "a benchmarking address (RFC 2544)"},
    {quad(172, 16, 0, 0), 12, "a private address (RFC 1918)"},
    {quad(100, 64, 0, 0), 10, "a carrier-grade NAT address (RFC 6598)"},
    {quad(10, 0, 0, 0), 8, "a private address (RFC 1918)"},
    {quad(127, 0, 0, 0), 8, "a loopback address (RFC 1122)"},
    {quad(0, 0, 0, 0), 8, "an address of \"this network\" (RFC 791)"},
    {quad(224, 0, 0, 0), 4, "a multicast address (RFC 5771)"},
    {quad(240, 0, 0, 0), 4, "a reserved address (RFC 1112)"},
};

}  // namespace

const char* specialAddressKind(std::uint32_t ip) noexcept {
  for (const Block& block : kBlocks)
    if ((ip ^ block.network) >> (32 - block.bits) == 0) return block.kind;
  return nullptr;
}

}  // namespace tolvar::tools
