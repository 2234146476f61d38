// Bytes as a page of a download: the decoder that works on the bytes and the one that works on the
// parsed message must agree, and a page that decodes is encoded and decoded again.

#include <algorithm>
#include <optional>
#include <span>
#include <string>

#include "fuzz/require.h"
#include "tolvar.pb.h"
#include "transport/grpc/message_parser.h"
#include "transport/grpc/page_bytes.h"
#include "transport/grpc/page_codec.h"

namespace {

using namespace tolvar::wire;
using ravel::downloadInfo;

bool sameRange(const ravel::IPProperty& a, const ravel::IPProperty& b) {
  return a.timesTamp == b.timesTamp && a.sequence == b.sequence && !(a < b) && !(b < a);
}

bool samePage(const downloadInfo& a, const downloadInfo& b) {
  return a.highMaxIndex == b.highMaxIndex && a.lowMaxIndex == b.lowMaxIndex &&
         a.isdownloadReset == b.isdownloadReset &&
         std::equal(a.IPContent.begin(), a.IPContent.end(), b.IPContent.begin(), b.IPContent.end(),
                    sameRange);
}

template <class Source>
std::optional<downloadInfo> decoded(const Source& source, const PageQuery& query) {
  downloadInfo info;
  try {
    decodePage(source, query, info);
  } catch (const WireError&) {
    return std::nullopt;
  }
  return info;
}

/// Whether a page may hold what these bytes hold. Whatever a parser accepts can be walked.
bool isBounded(std::span<const std::uint8_t> bytes, bool isMessage) {
  try {
    const bool isWalked = checkFieldCounts(bytes, kLimitsOf<tolvar::v1::Page>);
    FUZZ_REQUIRE(isWalked || !isMessage);
    return true;
  } catch (const WireError&) {
    return false;
  }
}

/// By way of a message.
std::optional<downloadInfo> decodedMessage(std::span<const std::uint8_t> bytes,
                                           const PageQuery& query) {
  tolvar::v1::Page message;
  const bool isMessage = message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
  if (!isBounded(bytes, isMessage) || !isMessage) return std::nullopt;
  const auto unknown = message.GetReflection()->GetUnknownFields(message).field_count();
  FUZZ_REQUIRE(static_cast<std::size_t>(unknown) <= kMaxOtherFields);
  FUZZ_REQUIRE(static_cast<std::size_t>(message.place_size()) <= kMaxPageRecords);
  return decoded(message, query);
}

void checkPage(std::span<const std::uint8_t> bytes, const PageQuery& query) {
  const auto fast = decoded(PageBytes(bytes), query);
  const auto slow = decodedMessage(bytes, query);
  FUZZ_REQUIRE(fast.has_value() == slow.has_value());
  if (!fast) return;
  FUZZ_REQUIRE(samePage(*fast, *slow));
  FUZZ_REQUIRE(fast->IPContent.size() <= query.size);

  PageHead head;
  head.endIndex = std::uint64_t{fast->highMaxIndex} << 32 | fast->lowMaxIndex;
  head.isdownloadReset = fast->isdownloadReset;
  tolvar::v1::Page encoded;
  encodePage(head, fast->IPContent, encoded);
  const std::string text = encoded.SerializeAsString();
  const auto again =
      decoded(PageBytes({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}), query);
  FUZZ_REQUIRE(again && samePage(*again, *fast));
}

}  // namespace

/// The first byte chooses what the page was asked for.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  PageQuery query;
  query.high = data[0] & 1 ? 1 : 0;
  query.low = data[0] & 2 ? 2 : 0;
  query.size = data[0] & 4 ? 2 : 50000;
  checkPage({data + 1, size - 1}, query);
  return 0;
}
