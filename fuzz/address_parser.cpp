// Texts as addresses and networks, held against inet_pton and against what is printed of the
// result.

#include <string>

#include "fuzz/require.h"
#include "platform/toolkit.h"
#include "service/address_text.h"
#include "tests/support/system_address.h"

namespace {

void checkAddress(const std::string& text) {
  constexpr std::uint32_t kUntouched = 0xDEADBEEF;
  std::uint32_t ours = kUntouched, theirs = kUntouched;
  const bool parsed = Toolkit::parseIPv4(text, &ours);
  FUZZ_REQUIRE(parsed == tolvar_test::systemParses(text, &theirs));
  FUZZ_REQUIRE(ours == theirs);
  FUZZ_REQUIRE(Toolkit::s2ipD(text) == (parsed ? ours : 0));
  if (parsed) FUZZ_REQUIRE(tolvar::service::formatIPv4(ours) == text);
}

void checkTableAddress(const std::string& text) {
  const auto address = tolvar::service::parseAddress(text);
  if (!address) return;
  // There is one way to write an address in each form.
  FUZZ_REQUIRE(text == tolvar::service::formatIPv4(*address) || text == std::to_string(*address));
}

void checkNetwork(const std::string& text) {
  const auto network = tolvar::service::parseNetwork(text);
  if (!network) return;
  unsigned length = 32;
  for (std::uint32_t mask = network->hostMask; mask != 0; mask >>= 1) --length;
  FUZZ_REQUIRE((network->hostMask & (network->hostMask + 1)) == 0);
  FUZZ_REQUIRE(text ==
               tolvar::service::formatIPv4(network->address) + "/" + std::to_string(length));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  checkAddress(text);
  checkTableAddress(text);
  checkNetwork(text);
  return 0;
}
