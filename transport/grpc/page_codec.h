#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>

#include "records/records.h"
#include "transport/grpc/page_bytes.h"
#include "transport/grpc/wire_limits.h"

namespace tolvar::v1 {
class Page;
class Codes;
}  // namespace tolvar::v1

/// Records to wire messages and back. Pure functions, callable from any thread.
///
/// Decoding trusts nothing: lengths, sums, order and totals are checked before a record is built,
/// and memory is taken only for what the message really holds.
namespace tolvar::wire {

/// A message breaks the contract, or a record cannot be told in it. The text says which field.
class WireError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What a page was asked for; the answer is checked against it.
struct PageQuery {
  std::uint32_t high = 0;
  std::uint32_t low = 0;
  std::uint32_t size = 0;

  std::uint64_t cursor() const noexcept { return static_cast<std::uint64_t>(high) << 32 | low; }
};

/// Head of a page; the rest are its ranges.
struct PageHead {
  std::uint64_t endIndex = 0;
  std::int8_t isdownloadReset = 0;
};

/// Fills `page` with `ranges`. Throws WireError when there are more than kMaxPageRecords or one
/// ends before it starts.
void encodePage(const PageHead& head, std::span<const ravel::IPProperty> ranges, v1::Page& page);

/// Fills `info` from the answer to `query`. Throws WireError, with `info` unspecified, when
///  - a column has neither `records` values nor none, or there are more records than asked for or
///    than kMaxPageRecords;
///  - a sum leaves its range or a range ends behind 255.255.255.255;
///  - the cursors do not increase strictly, pass the end index, or (without a reset) do not lie
///    behind the cursor asked for;
///  - the page is empty although the end index says that ranges follow.
void decodePage(const v1::Page& page, const PageQuery& query, ravel::downloadInfo& info);

/// The same from the bytes of a page, several times as fast. Throws WireError also when they are
/// not a Page or hold more than one may (message_limits.h).
void decodePage(const PageBytes& page, const PageQuery& query, ravel::downloadInfo& info);

/// Fills `message` with `codes`, order kept. Throws WireError when there are more than
/// kMaxCodeEntries or kMaxCodeRuns, a name is longer than kMaxNameBytes, or a type is none of the
/// contract's.
void encodeCodes(std::span<const ravel::CodeInfo> codes, v1::Codes& message);

/// Fills `codes`. Throws WireError, with `codes` unspecified, when the runs do not add up to the
/// total, have no entries or unequal numbers of ids and names, a type is none of the contract's, or
/// the bounds above are passed.
void decodeCodes(const v1::Codes& message, std::vector<ravel::CodeInfo>& codes);

}  // namespace tolvar::wire
