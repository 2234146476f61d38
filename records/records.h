#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "records/vek_stream.h"

/// The records that the client, the service and the shared-memory image speak in.
/// Addresses are IPv4 numbers in host order ("1.2.3.4" is 0x01020304).
namespace ravel {

using qel::BufferReader;
using qel::BufferWriter;
using qel::VekInputStream;
using qel::VekOutputStream;
using qel::VekStructBase;

/// Answer of a numeric lookup; `city`, `province` and `country` are decimal prefixes of `district`.
struct IPInfo : VekStructBase {
  std::uint32_t country = 0;
  std::uint32_t province = 0;
  std::uint32_t city = 0;
  std::int64_t district = 0;
  std::uint32_t extend = 0;
  std::uint32_t oper = 0;
  std::uint32_t nettype = 0;
  std::uint32_t apn = 0;
  std::uint32_t flable = 0;

  void resetDefautlt() { *this = IPInfo(); }
};

/// One range as it lies in shared memory. `startIP` and `endIP` are both inclusive.
struct IPAttribute : VekStructBase {
  std::uint32_t startIP = 0;
  std::uint32_t endIP = 0;
  std::int64_t place = 0;
  std::uint32_t extend = 0;
  std::uint32_t oper = 0;
  std::uint32_t nettype = 0;
  std::uint32_t apn = 0;
  std::uint32_t flable = 0;

  void resetDefautlt() { *this = IPAttribute(); }
  void writeTo(VekOutputStream<BufferWriter>& out) const;
  /// All fields are required; throws VekDecodeException and leaves the record partly read.
  void readFrom(VekInputStream<BufferReader>& in);
};

/// One range as the service sends it; `timesTamp` and `sequence` together are the paging cursor.
struct IPProperty : VekStructBase {
  std::uint32_t timesTamp = 0;
  std::uint32_t sequence = 0;
  std::uint32_t startIP = 0;
  std::uint32_t endIP = 0;
  std::int64_t place = 0;
  std::uint32_t extend = 0;
  std::uint32_t oper = 0;
  std::uint32_t nettype = 0;
  std::uint32_t apn = 0;
  std::uint32_t flable = 0;

  void resetDefautlt() { *this = IPProperty(); }
};

/// Order by `startIP`, `endIP`, `place`, `extend`, `oper`, `nettype`, `apn`, `flable`; the cursor
/// takes no part.
bool operator<(const IPProperty& left, const IPProperty& right) noexcept;

using vIPProperty = std::vector<IPProperty>;

/// One page of a full download. The end index of the table is highMaxIndex * 2^32 + lowMaxIndex.
struct downloadInfo : VekStructBase {
  std::uint32_t highMaxIndex = 0;
  std::uint32_t lowMaxIndex = 0;
  std::int8_t isdownloadReset = 0;  ///< 1: forget what was gathered, this page begins the table
  vIPProperty IPContent;

  void resetDefautlt() { *this = downloadInfo(); }
};

/// One entry of a code table. `codeType` is 1 to 8: country, province, city, district, extend,
/// oper, nettype, apn.
struct CodeInfo : VekStructBase {
  std::int32_t codeType = 0;
  std::int64_t ID = 0;
  std::string content;

  void resetDefautlt() { *this = CodeInfo(); }
  void writeTo(VekOutputStream<BufferWriter>& out) const;
  /// All fields are required; throws VekDecodeException and leaves the record partly read.
  void readFrom(VekInputStream<BufferReader>& in);
};

/// Order by `codeType`, then `ID`, then `content` byte by byte.
bool operator<(const CodeInfo& left, const CodeInfo& right) noexcept;

/// Answer of a change check.
struct CheckInfo : VekStructBase {
  std::int8_t isNetFlow = 0;  ///< 1: the service is overloaded, ask again later
  std::int8_t isReset = 0;    ///< not 0: the client's table is not the current one
  bool updateConf = false;    ///< a newer configuration is waiting

  void resetDefautlt() { *this = CheckInfo(); }
};

/// Configuration that the service gives to clients.
struct ClientConf : VekStructBase {
  bool statisOpen = false;                  ///< report the names of hits
  std::vector<std::string> simpleLogCitys;  ///< cities whose hits are sampled
  std::int32_t simplingRate = 0;            ///< samples in 10000 lookups
  std::int32_t logBufferLimit = 1000;       ///< sampled lines that may wait for delivery
  bool logUnknownIp = false;                ///< sample addresses without a range
  std::int32_t confVersion = 1;

  void resetDefautlt() { *this = ClientConf(); }
};

/// Request of a change check.
struct CheckReq : VekStructBase {
  std::string contentMd5;  ///< digest of the client's table, "0" when it never held one
  std::uint32_t apiVersion = 0;
  std::int32_t confVersion = 0;

  void resetDefautlt() { *this = CheckReq(); }
};

enum ReportType : std::int32_t {
  ECountry = 0,
  EProvince = 1,
  ECity = 2,
  EOperator = 3,
};

/// One reported name.
struct ReportInfo : VekStructBase {
  ReportType type = ECountry;
  std::string name;

  void resetDefautlt() { *this = ReportInfo(); }
};

/// Hits of one name since the last delivery.
struct ReportCount : VekStructBase {
  ReportInfo info;
  std::uint64_t count = 0;

  void resetDefautlt() { *this = ReportCount(); }
};

}  // namespace ravel
