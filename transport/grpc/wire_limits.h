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

/// Largest request a server accepts by default, in bytes.
inline constexpr int kMaxRequestBytes = 8388608;

}  // namespace tolvar::wire
