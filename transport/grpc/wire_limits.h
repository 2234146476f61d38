#pragma once

#include <cstddef>
#include <cstdint>

/// Bounds that both sides of the wire keep. docs/wire.md lists them.
namespace tolvar::wire {

/// Largest message a client accepts, in bytes.
inline constexpr int MAX_RECV_BUFFER = 20971520;

/// Most records of one page. The longest encoding of a record takes 55 bytes, so that every page
/// within this bound fits MAX_RECV_BUFFER.
inline constexpr std::uint32_t kMaxPageRecords = 262144;

/// Most entries of all code tables together.
inline constexpr std::size_t kMaxCodeEntries = 1048576;

/// Most runs of all code tables together. Eight are enough for entries in the order of their types,
/// the way services of this project send them; each takes a receiver far more than its nine bytes.
inline constexpr std::size_t kMaxCodeRuns = 65536;

/// Code types of the contract.
inline constexpr std::int32_t kFirstCodeType = 1;
inline constexpr std::int32_t kLastCodeType = 8;

/// Longest name of a code entry, a city or a report, in bytes.
inline constexpr std::size_t kMaxNameBytes = 1024;

/// Longest digest of a change check, in bytes.
inline constexpr std::size_t kMaxDigestBytes = 64;

/// Most city names of a client configuration.
inline constexpr std::size_t kMaxConfCitys = 65536;

/// Most names of one delivery of counts.
inline constexpr std::size_t kMaxReportCounts = 131072;

/// Most lines of one delivery, and the longest of them in bytes.
inline constexpr std::size_t kMaxReportLines = 131072;
inline constexpr std::size_t kMaxReportLineBytes = 8192;

/// Most fields of a message that are not repeated, and of those that only a newer contract knows: a
/// receiver keeps these, in far more memory than they took on the wire. The contract has six at
/// most.
inline constexpr std::size_t kMaxOtherFields = 1024;

/// As many more for each run of codes and each count of a delivery that there may be, on average.
/// The contract has three at most.
inline constexpr std::size_t kMaxFieldsOfElement = 4;

/// Largest request a server accepts by default, in bytes.
inline constexpr int kMaxRequestBytes = 8388608;

}  // namespace tolvar::wire
